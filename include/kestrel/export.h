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
