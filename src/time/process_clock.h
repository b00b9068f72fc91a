// The process-wide clock behind Timestamp (internal). It reads the wall
// clock once at calibration and from then on advances that base with a
// monotonic stopwatch whose rate is kept in line with the wall clock;
// wall-clock adjustments are blended in over 60 seconds.
#pragma once

#include <cstdint>

#include "kestrel/export.h"

namespace kestrel {
namespace detail {

// Where the process clock reads time. The production sources are Boost's
// system clock and steady clock; tests install a fake.
//
// Thread safety: the clock calls the sources only under its own lock.
// Lifetime: an installed replacement must outlive its installation.
// Errors: implementations must not throw.
class ClockSources {
  public:
    virtual ~ClockSources() = default;
    // The wall clock in 100-ns ticks since the wall clock's own epoch.
    virtual std::int64_t wallTicks() = 0;
    // The wall clock's tick count for 1970-01-01 00:00:00 UTC (time value 0).
    virtual std::int64_t wallTicksAtTimeZero() = 0;
    // A monotonic clock in nanoseconds since an arbitrary start.
    virtual std::int64_t steadyNanoseconds() = 0;
};

// The current time in seconds since 1970-01-01 00:00:00 UTC. Calibrates
// first when uncalibrated.
double processClockNow();
// One step of the wall clock as measured at calibration; calibrates first
// when uncalibrated.
double processClockSystemGranularity();

// Makes the process clock read from sources (nullptr: the system clocks
// again) and puts it back into its initial, uncalibrated state.
KESTREL_API void setProcessClockSourcesForTesting(ClockSources* sources);
// The calibration state: 0 uncalibrated, 1 tracking, 2 sampling, 3 blending.
KESTREL_API std::int32_t getProcessClockStateForTesting();

}  // namespace detail
}  // namespace kestrel
