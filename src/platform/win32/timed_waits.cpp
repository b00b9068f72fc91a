// Windows: timed waits end on the system tick, 15.6 ms unless some program
// asks for a finer one; timeBeginPeriod(1) asks for 1 ms while it is held.
#include "platform/timed_waits.h"

#include <windows.h>

// timeapi.h uses the types of windows.h.
#include <timeapi.h>

namespace kestrel {
namespace platform {

namespace {

// Holds the 1 ms resolution for the thread that asked for it, and gives it
// back when that thread ends.
class ResolutionRequest {
  public:
    ResolutionRequest() : _granted(::timeBeginPeriod(1) == TIMERR_NOERROR) {}
    ~ResolutionRequest() {
        if (_granted) {
            ::timeEndPeriod(1);
        }
    }
    ResolutionRequest(const ResolutionRequest&) = delete;
    ResolutionRequest& operator=(const ResolutionRequest&) = delete;

  private:
    bool _granted;
};

}  // namespace

void requestPreciseTimedWaits() noexcept {
    thread_local ResolutionRequest request;
    (void)request;
}

std::int64_t wakeUpLeadNanoseconds() noexcept {
    // Even at 1 ms resolution a wake-up may come a whole tick late: watching
    // the clock for that long would cost more than it saves.
    return 0;
}

}  // namespace platform
}  // namespace kestrel
