#include <boost/chrono/system_clocks.hpp>
#include <cstdint>
#include <limits>

#include "kestrel/time.h"

namespace kestrel {

// The start instant as a signed count of steady-clock nanoseconds; the
// smallest value marks a timer that was never started.
struct ElapsedTimer::StartInstant {
    static constexpr std::int64_t kNeverStarted = std::numeric_limits<std::int64_t>::min();
    std::int64_t nanoseconds = kNeverStarted;
};

namespace {

std::int64_t steadyNowNanoseconds() {
    return boost::chrono::duration_cast<boost::chrono::nanoseconds>(
               boost::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace

ElapsedTimer::ElapsedTimer(bool startNow) : _start(std::make_unique<StartInstant>()) {
    if (startNow) {
        start();
    }
}

ElapsedTimer::~ElapsedTimer() = default;

void ElapsedTimer::start() {
    _start->nanoseconds = steadyNowNanoseconds();
}

double ElapsedTimer::getElapsedTime() const {
    if (!isStarted()) {
        return 0.0;
    }
    const std::int64_t elapsed = steadyNowNanoseconds() - _start->nanoseconds;
    return static_cast<double>(elapsed) / 1000000000.0;
}

bool ElapsedTimer::isStarted() const {
    return _start->nanoseconds != StartInstant::kNeverStarted;
}

}  // namespace kestrel
