// The process-wide clock behind Timestamp (internal).
#pragma once

namespace kestrel {
namespace detail {

// The current time in seconds since 1970-01-01 00:00:00 UTC.
double processClockNow();
// One step of the wall clock as measured at calibration; calibrates first
// when the clock has never been calibrated.
double processClockSystemGranularity();

}  // namespace detail
}  // namespace kestrel
