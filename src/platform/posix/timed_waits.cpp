// Linux: the kernel lets a normal thread's timed waits end up to its timer
// slack (50 us by default) late, to batch wake-ups; a thread can set its own.
#include "platform/timed_waits.h"

#include <sys/prctl.h>

namespace kestrel {
namespace platform {

void requestPreciseTimedWaits() noexcept {
    // 1 ns: 0 would mean "back to the process default".
    ::prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
}

std::int64_t wakeUpLeadNanoseconds() noexcept {
    // A wake-up from a timed wait reaches the thread some tens of
    // microseconds after its deadline (more in a virtual machine whose idle
    // processor has to be woken first).
    return 150000;
}

}  // namespace platform
}  // namespace kestrel
