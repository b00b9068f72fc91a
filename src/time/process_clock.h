// The process-wide clock behind Timestamp (internal). It reads the wall
// clock once at calibration and from then on advances that base with a
// monotonic stopwatch whose rate is kept in line with the wall clock;
// wall-clock adjustments are blended in over 60 seconds.
#pragma once

#include <cstdint>

#include "core/test_seam.h"
#include "kestrel/testing/clock.h"

namespace kestrel {
namespace detail {

// The sources the process clock reads: the system's wall clock and steady
// clock, or a test's (kestrel/testing/clock.h).
using ClockSources = testing::ClockSources;

// The current time in seconds since 1970-01-01 00:00:00 UTC. Calibrates
// first when uncalibrated.
double processClockNow();
// One step of the wall clock as measured at calibration; calibrates first
// when uncalibrated.
double processClockSystemGranularity();

// testing::setClockSources() under the name the benchmarks use.
inline void setProcessClockSourcesForTesting(ClockSources* sources) {
    testing::setClockSources(sources);
}
// The calibration state: 0 uncalibrated, 1 tracking, 2 sampling, 3 blending.
KESTREL_TEST_SEAM std::int32_t getProcessClockStateForTesting();

}  // namespace detail
}  // namespace kestrel
