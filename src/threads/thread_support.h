// Internals shared by the thread sources: the steady clock in nanoseconds,
// the rounding of durations, and the synchronisation objects behind Event.
#pragma once

#include <boost/chrono/system_clocks.hpp>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "core/annotated_mutex.h"
#include "kestrel/threads.h"
#include "platform/timed_waits.h"
#include "threads/signal_hook.h"

namespace kestrel {

namespace detail {

// A sleeper registered with an event for the length of a WorkThread wait: the
// event's signal() wakes it. Linked into the event's list under its mutex.
struct EventWatch {
    platform::Sleeper* sleeper = nullptr;
    EventWatch* next = nullptr;
    EventWatch* prev = nullptr;
};

}  // namespace detail

// The standard library's mutex guards the flag: a wake-up through Boost's
// condition variable takes a second, internal mutex on both sides (for
// thread interruption, which no Event wait offers), which doubles the cost of
// a signal-and-wake round trip.
struct Event::Mutex : detail::Mutex {
    detail::EventWatch* watches KESTREL_GUARDED_BY(this) = nullptr;
    // The threads in Event::wait() that have found the flag clear and sleep,
    // or are about to, on the condition's word.
    int sleepers KESTREL_GUARDED_BY(this) = 0;
};

// What Event::wait() sleeps on: a word of memory that signal() changes, under
// the event's lock, whenever it finds sleepers, and then wakes them through.
// It does the work of a condition variable without the standard one's cost
// on Linux, where a thread woken from a condition variable re-takes the mutex
// as if others were queued on it and so makes a further system call when it
// releases it: three system calls per wake-up instead of two.
struct Event::Condition {
    std::atomic<int> word{0};
};

namespace detail {

// The clock of the timed waits on an Event, in nanoseconds: the standard
// steady clock, which the condition variable waits on directly.
using WaitClock = std::chrono::steady_clock;

inline std::int64_t waitClockNanoseconds() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(WaitClock::now().time_since_epoch())
        .count();
}

inline WaitClock::time_point waitClockTimePoint(std::int64_t nanoseconds) {
    return WaitClock::time_point(std::chrono::nanoseconds(nanoseconds));
}

// How far an unbounded wait reaches: 10^18 ns, about 31.7 years.
constexpr std::int64_t kUnboundedNanoseconds = 1000000000000000000;

using SteadyClock = boost::chrono::steady_clock;

inline std::int64_t steadyNowNanoseconds() {
    return boost::chrono::duration_cast<boost::chrono::nanoseconds>(
               SteadyClock::now().time_since_epoch())
        .count();
}

inline SteadyClock::time_point steadyTimePoint(std::int64_t nanoseconds) {
    return SteadyClock::time_point(boost::chrono::nanoseconds(nanoseconds));
}

// seconds rounded to whole microseconds and expressed in nanoseconds: the
// truncation of (seconds + 5e-7) * 1e6, times 1000. NaN counts as 0; values
// beyond the unbounded reach (positive or negative) are held at it.
inline std::int64_t roundedNanoseconds(double seconds) {
    constexpr double kLimitMicros = static_cast<double>(kUnboundedNanoseconds / 1000);
    const double micros = (seconds + 5e-7) * 1e6;
    if (std::isnan(micros)) {
        return 0;
    }
    if (micros >= kLimitMicros) {
        return kUnboundedNanoseconds;
    }
    if (micros <= -kLimitMicros) {
        return -kUnboundedNanoseconds;
    }
    return static_cast<std::int64_t>(micros) * 1000;
}

// True when the calling thread is thread's work thread (inside its run()).
// Known only in builds with contract checks; false in the others.
bool isCurrentWorkThread(const WorkThread* thread);

}  // namespace detail
}  // namespace kestrel
