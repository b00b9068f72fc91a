// One round of a short busy wait (internal).
#pragma once

#if defined(__x86_64__) || defined(__i386__) || defined(_M_X64) || defined(_M_IX86)
#include <immintrin.h>
#define KESTREL_HAVE_PAUSE 1
#endif

namespace kestrel {
namespace detail {

// Tells the processor that the thread spins, which saves power and lets a
// sibling hardware thread run.
inline void cpuRelax() {
#if defined(KESTREL_HAVE_PAUSE)
    _mm_pause();
#endif
}

}  // namespace detail
}  // namespace kestrel
