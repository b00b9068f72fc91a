// For tests only: drive kestrel's process clock from clocks the test controls.
//
// Every current time in kestrel (Timestamp(), Timestamp::now(),
// fcns::time::getCurrentTimestamp(), a TimerThread's schedule, the time of
// each KSDebugLog record, the time in identifiers made by the formatting
// helpers) comes from one process-wide clock. That clock reads two sources:
// a wall clock, once at calibration and then to keep its rate in line, and a
// monotonic stopwatch that advances the calibrated base. A host's test can
// replace both with a ClockSources of its own and so decide what time
// kestrel sees, including how the wall clock is set while it runs. This is
// how kestrel's own tests check its clock and timer thread.
//
// Not part of kestrel.h: a test includes <kestrel/testing/clock.h> itself.
// Production code must not install sources. See docs/testing.md for an
// example.
//
// What the clock does with the sources:
//   - Calibration (the first current-time request after setClockSources(),
//     and after a detected wall-clock jump) reads the wall clock, then reads
//     it again, with no stopwatch read in between, until the value changes;
//     the change is the wall clock's step, which
//     Timestamp::getSystemClockGranularity() reports. The base time is the
//     wall clock's reading at that moment.
//   - From then on the current time is the base time plus the stopwatch
//     seconds since calibration times a rate, which is 1.0 at first. Each
//     request reads the stopwatch once and the wall clock at most once.
//   - For the first 300 stopwatch seconds after calibration the wall clock
//     is not compared. After that, a wall clock more than 5 s or 5 % away
//     from the stopwatch counts as set: the current time moves to it over a
//     60-second blend, then the clock recalibrates. A smaller drift is
//     measured over a 60-second sampling phase (at least 30 requests) and
//     blended into the rate over the next 60 seconds.
//   So a test that moves both clocks by the same amount sees the current
//   time move by exactly that amount; one that sets only the wall clock sees
//   the blend.
//
// Only the current time changes: timed waits (WorkThread::wait, Event's
// waits) and ElapsedTimer still run on the system's clocks. A TimerThread
// reckons each due time in Timestamp values and sleeps for its distance from
// the current time, so moving the fake clocks moves its schedule.
#pragma once

#include <cstdint>

#include "kestrel/export.h"

namespace kestrel {
namespace testing {

// Where the process clock reads time. Derive from it and implement the
// three readings.
//
// Thread safety: the readings are called on every thread that takes the
//   current time, several at once, sometimes under the process clock's lock
//   and sometimes without any lock. Make them safe to call concurrently
//   with each other and with the test code that moves the clocks (atomics
//   are enough). They must return promptly: they must not take the current
//   time themselves, call setClockSources(), or wait for another thread that
//   might be taking the current time.
// Lifetime: owned by the caller; installed sources must stay valid until
//   the setClockSources() call that replaces them has returned.
// Errors: the readings must not throw.
class KESTREL_API ClockSources {
  public:
    virtual ~ClockSources();

    // The wall clock in 100-ns ticks since the source's own epoch (any
    // epoch: wallTicksAtTimeZero() places it). Repeated reads with no
    // stopwatch read in between must eventually return a different value,
    // or calibration never ends: a fake usually moves its wall clock on by
    // one step on the second and later of such reads.
    virtual std::int64_t wallTicks() = 0;
    // The wall clock's tick count for 1970-01-01 00:00:00 UTC, time value 0.
    // Read once at each calibration.
    virtual std::int64_t wallTicksAtTimeZero() = 0;
    // A monotonic clock in nanoseconds since an arbitrary start. It must
    // never go back.
    virtual std::int64_t steadyNanoseconds() = 0;
};

// Makes the process clock read sources from now on; nullptr returns it to
// the system's clocks.
//
// Either way the clock goes back to its initial state, uncalibrated with a
// rate of 1.0, and the next current-time request calibrates from the sources
// now installed. Timestamps taken earlier keep their values; differences
// between times taken before and after the call mean nothing.
//
// Other threads may take the current time meanwhile: a request that
// overlaps the call gives a time from the old sources or from the new ones,
// never a mix of the two, and may wait a moment for the call's switch-over.
// When the call returns, no reading of the old sources is in progress or
// will be made, so they may be destroyed at once. For that the call waits
// for readings of the old sources still in progress on other threads, which
// is why a reading must never wait for anything the calling thread does.
//
// Thread safety: any thread; concurrent calls are served one after the
//   other. Lifetime: sources is not owned (see ClockSources).
// Errors: never throws.
KESTREL_API void setClockSources(ClockSources* sources);

}  // namespace testing
}  // namespace kestrel
