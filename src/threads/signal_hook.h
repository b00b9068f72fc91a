// A test seam of Event (internal): calls from inside signal().
#pragma once

#include <cstddef>

#include "core/test_seam.h"

namespace kestrel {
namespace detail {

// Tests only: called on the signalling thread twice in every
// Event::signal(): once the event's lock is released, with the number of
// wakes of waiting work threads it took under the lock and has not given yet
// (kWakesTaken), and at the very end (kEnd, wakes 0). nullptr (the default)
// for none.
enum class SignalPoint { kWakesTaken, kEnd };
using SignalHook = void (*)(SignalPoint point, std::size_t wakes);
KESTREL_TEST_SEAM void setSignalHookForTesting(SignalHook hook);

}  // namespace detail
}  // namespace kestrel
