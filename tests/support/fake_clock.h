// A controllable stand-in for the wall clock and the monotonic clock behind
// Timestamp. Time moves only when the test says so.
#pragma once

#include <cmath>
#include <cstdint>

#include "time/process_clock.h"

namespace kestrel_test {

// While it exists, the process clock reads this fake, starting uncalibrated.
// advance(d) moves both clocks by d seconds; jumpWall(d) sets the wall clock
// by d seconds, as an administrator or time service would. Reading the wall
// clock twice without a stopwatch read in between lets both clocks run on
// by one wall-clock step, as a process spinning on the wall clock would
// see; that is what ends the calibration's wait for a step. The wall clock
// counts from its own epoch, 1601 as on Windows, so that the epoch's
// handling shows.
class FakeClock : public kestrel::detail::ClockSources {
  public:
    static constexpr std::int64_t kTicksAtTimeZero = 116444736000000000;

    explicit FakeClock(double wallSeconds = 1.7e9, double wallStep = 0.001)
        : _wall(kTicksAtTimeZero + std::llround(wallSeconds * 1e7)), _wallStep(wallStep) {
        kestrel::detail::setProcessClockSourcesForTesting(this);
    }
    ~FakeClock() override { kestrel::detail::setProcessClockSourcesForTesting(nullptr); }
    FakeClock(const FakeClock&) = delete;
    FakeClock& operator=(const FakeClock&) = delete;

    void advance(double seconds) {
        jumpWall(seconds);
        _steady += std::llround(seconds * 1e9);
    }
    void jumpWall(double seconds) { _wall += std::llround(seconds * 1e7); }
    // The wall clock's reading in seconds since 1970-01-01 00:00:00 UTC.
    double wallSeconds() const { return static_cast<double>(_wall - kTicksAtTimeZero) / 1e7; }

    std::int64_t wallTicks() override {
        if (_lastReadWasWall) {
            advance(_wallStep);
        }
        _lastReadWasWall = true;
        return _wall;
    }
    std::int64_t wallTicksAtTimeZero() override { return kTicksAtTimeZero; }
    std::int64_t steadyNanoseconds() override {
        _lastReadWasWall = false;
        return _steady;
    }

  private:
    std::int64_t _wall;
    std::int64_t _steady = 5000000000000;  // an arbitrary start
    double _wallStep;
    bool _lastReadWasWall = false;
};

}  // namespace kestrel_test
