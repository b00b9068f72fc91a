// Short busy waits (internal): one round of a spin, and taking a lock that is
// held only briefly.
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

// Locks a mutex (anything with try_lock() and lock()) that its holders keep
// for well under a microsecond: retries for a moment before blocking. Under
// contention, a thread that blocks costs the holder a wake-up on release
// and itself a sleep, many times the section's length; a brief retry
// usually finds the lock free. Bounded by a count of pauses (a few
// microseconds at most, more where the pause instruction is slow).
template <typename Lockable>
void lockPromptly(Lockable& lock) {
    constexpr int kRounds = 16;
    constexpr int kPausesPerRound = 4;
    for (int round = 0; round < kRounds; ++round) {
        if (lock.try_lock()) {
            return;
        }
        for (int pause = 0; pause < kPausesPerRound; ++pause) {
            cpuRelax();
        }
    }
    lock.lock();
}

}  // namespace detail
}  // namespace kestrel
