// Timed waits for threads that must run on time: how precisely the system
// wakes a thread from a timed wait, and how early such a thread should wake
// to watch the clock for the rest of the way.
#pragma once

#include <cstdint>

namespace kestrel {
namespace platform {

// Asks the system to end the calling thread's timed waits as close to their
// deadlines as it can, for as long as the thread lives (Linux: no timer
// slack for the thread; Windows: the 1 ms timer resolution, given back when
// the thread ends). Best effort: a refusal leaves the waits as they were.
void requestPreciseTimedWaits() noexcept;

// How late a thread usually is when it wakes from a timed wait, in
// nanoseconds: a thread that must not be late waits until this long before
// its deadline and watches the clock from there. 0 where watching would cost
// more than it saves (a coarse system tick).
std::int64_t wakeUpLeadNanoseconds() noexcept;

}  // namespace platform
}  // namespace kestrel
