// KESTREL_API marks the classes and functions that the shared library
// exports. Everything else is hidden: the library is built with hidden
// visibility by default.
#pragma once

#if defined(_WIN32) || defined(__CYGWIN__)
#if defined(KESTREL_BUILDING_LIBRARY)
#define KESTREL_API __declspec(dllexport)
#else
#define KESTREL_API __declspec(dllimport)
#endif
#else
#define KESTREL_API __attribute__((visibility("default")))
#endif

// KESTREL_GUARDED_MEMBER(lock) marks a private member that lock guards, for
// Clang's thread-safety analysis of the library's own build (-Wthread-safety);
// it is empty for every other compiler and for the library's users.
#if defined(__clang__) && defined(KESTREL_BUILDING_LIBRARY)
#define KESTREL_GUARDED_MEMBER(lock) __attribute__((guarded_by(lock)))
#else
#define KESTREL_GUARDED_MEMBER(lock)
#endif

// KESTREL_PRINTF_FORMAT(f, a) lets the compiler check printf-style calls:
// f is the 1-based position of the format parameter (counting `this` for
// members), a that of the first variadic argument, or 0 for a va_list.
//
// A host that builds with -Werror=format-security and passes ready-made
// messages as formats (KSException("id", message)) defines
// KESTREL_NO_FORMAT_CHECKS before including any kestrel header (or with
// -DKESTREL_NO_FORMAT_CHECKS) to switch the checks off. The library's own
// build keeps them: they find real bugs.
#if (defined(__GNUC__) || defined(__clang__)) && !defined(KESTREL_NO_FORMAT_CHECKS)
#define KESTREL_PRINTF_FORMAT(f, a) __attribute__((format(printf, f, a)))
#else
#define KESTREL_PRINTF_FORMAT(f, a)
#endif
