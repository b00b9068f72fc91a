// Linux: a sleeper is a mutex, a condition variable and a flag; the
// condition variable waits for an absolute deadline on the monotonic clock,
// so a wait that the system ends early is simply resumed, never repeated in
// short slices. Words are waited on with futexes. The kernel lets a normal
// thread's timed waits end up to its timer slack (50 us by default) late, to
// batch wake-ups; a thread can set its own.
#include <linux/futex.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <condition_variable>

#include "core/annotated_mutex.h"
#include "platform/timed_waits.h"

namespace kestrel {
namespace platform {

struct Sleeper::State {
    detail::Mutex mutex;
    std::condition_variable condition;
    bool woken KESTREL_GUARDED_BY(mutex) = false;

    void wake() noexcept {
        {
            const detail::ScopedLock<detail::Mutex> lock(mutex);
            woken = true;
        }
        condition.notify_one();
    }
};

Sleeper::Sleeper() : _state(std::make_shared<State>()) {}

Sleeper::~Sleeper() = default;

void Sleeper::wake() noexcept {
    _state->wake();
}

Sleeper::Waker Sleeper::waker() const noexcept {
    Waker waker;
    waker._state = _state;
    return waker;
}

void Sleeper::Waker::wake() noexcept {
    if (_state) {
        _state->wake();
        _state.reset();
    }
}

void Sleeper::sleepUntil(std::int64_t deadlineNanoseconds) {
    detail::UniqueLock lock(_state->mutex);
    if (!_state->woken) {
        if (deadlineNanoseconds == kNoDeadline) {
            _state->condition.wait(lock.native());
        } else {
            // libstdc++ waits on the steady clock's own deadline
            // (pthread_cond_clockwait on CLOCK_MONOTONIC).
            const std::chrono::steady_clock::time_point deadline{
                std::chrono::nanoseconds(deadlineNanoseconds)};
            _state->condition.wait_until(lock.native(), deadline);
        }
    }
    _state->woken = false;
}

void waitOnWord(const std::atomic<int>& word, int expected) noexcept {
    static_assert(sizeof(std::atomic<int>) == sizeof(int), "a futex is a plain int");
    ::syscall(SYS_futex, reinterpret_cast<const int*>(&word), FUTEX_WAIT_PRIVATE, expected, nullptr,
              nullptr, 0);
}

void wakeWordWaiters(const void* word) noexcept {
    // The kernel looks the address up without reading it; a word whose
    // memory has gone wakes nobody (or, reused, causes a wake without cause,
    // which every futex user tolerates).
    ::syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
}

void requestPreciseTimedWaits() noexcept {
    // 1 ns: 0 would mean "back to the process default".
    ::prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
}

}  // namespace platform
}  // namespace kestrel
