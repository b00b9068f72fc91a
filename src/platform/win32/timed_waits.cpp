// Windows: a sleeper is an auto-reset event object. Timed waits end on the
// system tick, 15.6 ms unless some program asks for a finer one. A thread
// that asked for precise waits sleeps on a high-resolution waitable timer
// together with its event (Windows 10 1803 and later); where the system
// offers none, it holds the 1 ms timer resolution (timeBeginPeriod) only for
// the last stretch of each timed sleep, and never while it waits without a
// deadline, since a raised resolution costs the whole machine power. Words
// are waited on with WaitOnAddress.
#include <windows.h>

// timeapi.h uses the types of windows.h.
#include <timeapi.h>

#include <chrono>
#include <new>

#include "platform/timed_waits.h"

#ifndef CREATE_WAITABLE_TIMER_HIGH_RESOLUTION
#define CREATE_WAITABLE_TIMER_HIGH_RESOLUTION 0x00000002
#endif

namespace kestrel {
namespace platform {

namespace {

// Set by requestPreciseTimedWaits() for the calling thread.
thread_local bool preciseTimedWaits = false;

// A sleep longer than this first waits at the normal resolution until this
// long before its deadline; two system ticks cover the lateness of that wait.
constexpr std::int64_t kFineStretchNanoseconds = 32000000;

std::int64_t nowNanoseconds() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Whole milliseconds, rounded up so that a wait never ends before its
// deadline on account of the rounding, and short of INFINITE.
DWORD millisecondsFor(std::int64_t nanoseconds) {
    const std::int64_t ms = (nanoseconds + 999999) / 1000000;
    return ms >= static_cast<std::int64_t>(INFINITE) ? INFINITE - 1 : static_cast<DWORD>(ms);
}

}  // namespace

struct Sleeper::State {
    HANDLE event = nullptr;
    // Created on the first precise timed sleep; kept for the next ones.
    HANDLE timer = nullptr;
    bool timerRefused = false;

    ~State() {
        if (timer != nullptr) {
            ::CloseHandle(timer);
        }
        if (event != nullptr) {
            ::CloseHandle(event);
        }
    }

    // A precise sleep on the high-resolution timer; false when the system
    // has no such timer.
    bool sleepOnTimer(std::int64_t remaining) {
        if (timer == nullptr && !timerRefused) {
            timer = ::CreateWaitableTimerExW(
                nullptr, nullptr, CREATE_WAITABLE_TIMER_HIGH_RESOLUTION, TIMER_ALL_ACCESS);
            timerRefused = timer == nullptr;
        }
        if (timer == nullptr) {
            return false;
        }
        LARGE_INTEGER due;
        due.QuadPart = -((remaining + 99) / 100);  // relative, in 100 ns units
        if (!::SetWaitableTimer(timer, &due, 0, nullptr, nullptr, FALSE)) {
            return false;
        }
        const HANDLE handles[2] = {event, timer};
        ::WaitForMultipleObjects(2, handles, FALSE, INFINITE);
        ::CancelWaitableTimer(timer);
        return true;
    }
};

Sleeper::Sleeper() : _state(std::make_shared<State>()) {
    _state->event = ::CreateEventW(nullptr, FALSE, FALSE, nullptr);
    if (_state->event == nullptr) {
        throw std::bad_alloc();
    }
}

Sleeper::~Sleeper() = default;

void Sleeper::wake() noexcept {
    ::SetEvent(_state->event);
}

Sleeper::Waker Sleeper::waker() const noexcept {
    Waker waker;
    waker._state = _state;
    return waker;
}

void Sleeper::Waker::wake() noexcept {
    // The handle stays open while a Waker holds the state.
    if (_state) {
        ::SetEvent(_state->event);
        _state.reset();
    }
}

void Sleeper::sleepUntil(std::int64_t deadlineNanoseconds) {
    if (deadlineNanoseconds == kNoDeadline) {
        ::WaitForSingleObject(_state->event, INFINITE);
        return;
    }
    std::int64_t remaining = deadlineNanoseconds - nowNanoseconds();
    if (remaining <= 0) {
        // Consumes a wake that is already there.
        ::WaitForSingleObject(_state->event, 0);
        return;
    }
    if (!preciseTimedWaits) {
        ::WaitForSingleObject(_state->event, millisecondsFor(remaining));
        return;
    }
    if (_state->sleepOnTimer(remaining)) {
        return;
    }
    if (remaining > 2 * kFineStretchNanoseconds) {
        // The caller looks at its condition and comes back for the rest.
        ::WaitForSingleObject(_state->event, millisecondsFor(remaining - kFineStretchNanoseconds));
        return;
    }
    const bool raised = ::timeBeginPeriod(1) == TIMERR_NOERROR;
    ::WaitForSingleObject(_state->event, millisecondsFor(remaining));
    if (raised) {
        ::timeEndPeriod(1);
    }
}

void waitOnWord(const std::atomic<int>& word, int expected) noexcept {
    static_assert(sizeof(std::atomic<int>) == sizeof(int), "the word is a plain int");
    ::WaitOnAddress(const_cast<std::atomic<int>*>(&word), &expected, sizeof(int), INFINITE);
}

void sleepOnWord(const std::atomic<int>& word, int expected) {
    waitOnWord(word, expected);
}

void wakeWordWaiters(const void* word) noexcept {
    // The system keys its waiters by address and does not read the memory.
    ::WakeByAddressAll(const_cast<void*>(word));
}

void wakeOneWordWaiter(const void* word) noexcept {
    ::WakeByAddressSingle(const_cast<void*>(word));
}

void requestPreciseTimedWaits() noexcept {
    preciseTimedWaits = true;
}

}  // namespace platform
}  // namespace kestrel
