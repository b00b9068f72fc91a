// Checks of the rules that callers must keep (internal).
//
// A caller that breaks a documented rule (stopping a work thread from itself,
// destroying one whose thread still runs) would otherwise meet a deadlock, a
// crash far from the cause, or nothing at all until much later. In builds
// with contract checks the library tests these rules where it can and, when
// one is broken, writes what was done wrong and where the rule is
// documented to the standard error stream, then aborts.
//
// The checks are on in debug builds (NDEBUG not defined) unless the build
// sets KESTREL_CONTRACT_CHECKS to 0 or 1 (the CMake option of that name).
// Without them nothing is tested and the documented behaviour stays as it is.
#pragma once

#if !defined(KESTREL_CONTRACT_CHECKS)
#if defined(NDEBUG)
#define KESTREL_CONTRACT_CHECKS 0
#else
#define KESTREL_CONTRACT_CHECKS 1
#endif
#endif

namespace kestrel {
namespace detail {

// Writes "kestrel: " and message on one line to the standard error stream and
// aborts the process. When several threads find a broken rule at once, the
// first one reports and the others wait for the end.
[[noreturn]] void contractBroken(const char* message) noexcept;

}  // namespace detail
}  // namespace kestrel

// Reports message (a string literal: what was done wrong, and where the rule
// is documented) when condition is false, in builds with contract checks;
// elsewhere neither is evaluated.
#if KESTREL_CONTRACT_CHECKS
#define KESTREL_EXPECTS(condition, message) \
    ((condition) ? static_cast<void>(0) : ::kestrel::detail::contractBroken(message))
#else
#define KESTREL_EXPECTS(condition, message) static_cast<void>(0)
#endif
