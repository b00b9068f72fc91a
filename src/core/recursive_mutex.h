// A recursive mutex for short sections (internal).
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <thread>

#include "core/thread_annotations.h"

namespace kestrel {
namespace detail {

// A recursive mutex that costs one atomic exchange when it is first taken
// and released, and nothing when its owner takes it again. The thread
// library's recursive mutex spends several times as many instructions on the
// same work, which shows where a lock is taken for every event or for every
// reading of the clock.
//
// _state is 0 when free, 1 when held, 2 when held and a thread may sleep on
// it. A thread that finds it held retries for a moment (the sections under
// these mutexes are a few dozen instructions long), then yields the CPU a few
// times, each followed by one more try: a holder that lost its CPU in the
// middle of a section (three threads on two cores, or a machine shared with
// other work) is most often waiting for the very CPU the retrying thread
// holds, and a yield hands it over for the price of one system call, where
// a sleep costs the sleeper a futex wait and the holder a futex wake, each
// with a context switch. Then it sleeps on _wake;
// the releasing thread wakes one sleeper only when _state says there may be
// one. The sleeper sets _state to 2 under _sleepMutex before it sleeps, and
// the releaser takes _sleepMutex before it notifies, so no wake-up is lost.
//
// Only the owner writes its own identifier into _owner (after locking) and
// clears it (before unlocking), so a thread that reads its own identifier
// there holds the mutex, and one that reads anything else does not, however
// stale the value it reads. _depth is touched only by the owner.
//
// For Clang's thread-safety analysis it is a capability like any other mutex
// (the analysis knows no recursion): hold it with ScopedLock
// (core/annotated_mutex.h) and mark what it guards KESTREL_GUARDED_BY.
class KESTREL_CAPABILITY("mutex") RecursiveMutex {
  public:
    RecursiveMutex() = default;
    RecursiveMutex(const RecursiveMutex&) = delete;
    RecursiveMutex& operator=(const RecursiveMutex&) = delete;

    void lock() KESTREL_ACQUIRE() KESTREL_NO_THREAD_SAFETY_ANALYSIS {
        const std::thread::id self = std::this_thread::get_id();
        if (_owner.load(std::memory_order_relaxed) == self) {
            ++_depth;
            return;
        }
        if (!tryAcquire()) {
            acquireSlowly();
        }
        take(self);
    }
    bool try_lock() KESTREL_TRY_ACQUIRE(true) KESTREL_NO_THREAD_SAFETY_ANALYSIS {
        const std::thread::id self = std::this_thread::get_id();
        if (_owner.load(std::memory_order_relaxed) == self) {
            ++_depth;
            return true;
        }
        if (!tryAcquire()) {
            return false;
        }
        take(self);
        return true;
    }
    void unlock() KESTREL_RELEASE() KESTREL_NO_THREAD_SAFETY_ANALYSIS {
        if (--_depth != 0) {
            return;
        }
        _owner.store(std::thread::id(), std::memory_order_relaxed);
        if (_state.exchange(0, std::memory_order_release) == 2) {
            { const std::lock_guard<std::mutex> sleepers(_sleepMutex); }
            _wake.notify_one();
        }
    }

  private:
    static constexpr int kAttemptsBeforeSleeping = 64;
    static constexpr int kYieldsBeforeSleeping = 4;

    static void cpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#endif
    }
    bool tryAcquire() {
        int expected = 0;
        return _state.compare_exchange_strong(expected, 1, std::memory_order_acquire,
                                              std::memory_order_relaxed);
    }
    void acquireSlowly() {
        for (int attempt = 0; attempt < kAttemptsBeforeSleeping; ++attempt) {
            cpuRelax();
            if (_state.load(std::memory_order_relaxed) == 0 && tryAcquire()) {
                return;
            }
        }
        for (int attempt = 0; attempt < kYieldsBeforeSleeping; ++attempt) {
            std::this_thread::yield();
            if (_state.load(std::memory_order_relaxed) == 0 && tryAcquire()) {
                return;
            }
        }
        std::unique_lock<std::mutex> sleepers(_sleepMutex);
        while (_state.exchange(2, std::memory_order_acquire) != 0) {
            _wake.wait(sleepers);
        }
    }
    void take(std::thread::id self) {
        _owner.store(self, std::memory_order_relaxed);
        _depth = 1;
    }

    std::atomic<int> _state{0};
    std::atomic<std::thread::id> _owner{std::thread::id()};
    std::size_t _depth = 0;  // only touched by the owner
    std::mutex _sleepMutex;
    std::condition_variable _wake;
};

}  // namespace detail
}  // namespace kestrel
