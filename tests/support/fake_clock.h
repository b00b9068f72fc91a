// A controllable stand-in for the wall clock and the monotonic clock behind
// Timestamp. Time moves only when the test says so.
#pragma once

#include <atomic>
#include <cmath>

#include "kestrel/testing/clock.h"
#include "support/timing.h"

namespace kestrel_test {

// While it exists, the process clock reads this fake, starting uncalibrated.
// advance(d, j) moves both clocks by d seconds and then sets the wall clock
// by j more, as an administrator or time service would. Reading the wall
// clock twice without a stopwatch read in between lets both clocks run on
// by one wall-clock step of 1 ms, as a process spinning on the wall clock
// would see; that is what ends the calibration's wait for a step. The wall
// clock counts from its own epoch, 1601 as on Windows, so that the epoch's
// handling shows. Setting pause to 0 makes the next stopwatch read, on
// whatever thread, set it to 1 and wait there until the test sets it to 2.
class FakeClock : public kestrel::testing::ClockSources {
  public:
    explicit FakeClock(double wallSeconds = 1.7e9) {
        advance(0.0, wallSeconds);
        kestrel::testing::setClockSources(this);
    }
    ~FakeClock() override { kestrel::testing::setClockSources(nullptr); }

    void advance(double seconds, double wallJump = 0.0) {
        _wall += std::llround((seconds + wallJump) * 1e7);
        _steady += std::llround(seconds * 1e9);
    }
    // The wall clock's reading in seconds since 1970-01-01 00:00:00 UTC.
    double wallSeconds() const { return static_cast<double>(_wall - kTimeZero) / 1e7; }

    std::int64_t wallTicks() override {
        if (_wallReadsInARow++ > 0)
            advance(0.001);
        return _wall;
    }
    std::int64_t wallTicksAtTimeZero() override { return kTimeZero; }
    std::int64_t steadyNanoseconds() override {
        if (pause == 0) {
            pause = 1;
            waitFor([&] { return pause == 2; });
        }
        _wallReadsInARow = 0;
        return _steady;
    }
    std::atomic<int> pause{-1};

  private:
    static constexpr std::int64_t kTimeZero = 116444736000000000;  // 1970 in 100-ns ticks
    std::int64_t _wall = kTimeZero, _steady = 5000000000000, _wallReadsInARow = 0;
};

}  // namespace kestrel_test
