// A controllable stand-in for the wall clock and the monotonic clock behind
// Timestamp. Time moves only when the test says so.
#pragma once

#include <cmath>
#include <cstdint>

#include "time/process_clock.h"

namespace kestrel_test {

// advance(d) moves both clocks by d seconds; jumpWall(d) sets the wall clock
// by d seconds, as an administrator or time service would. Reading the wall
// clock twice without a stopwatch read in between lets both clocks run on
// by one wall-clock step (wallStep), as a process spinning on the wall clock
// would see; that is what ends the calibration's wait for a step.
class FakeClock : public kestrel::detail::ClockSources {
  public:
    // The wall clock counts from its own epoch, placed where Windows puts
    // 1970 (ticks since 1601), so that the epoch's handling shows.
    static constexpr std::int64_t kTicksAtTimeZero = 116444736000000000;

    explicit FakeClock(double wallSeconds = 1.7e9, double wallStep = 0.001)
        : _wall(kTicksAtTimeZero + ticks(wallSeconds)), _wallStep(wallStep) {}

    void advance(double seconds) {
        _wall += ticks(seconds);
        _steady += std::llround(seconds * 1e9);
    }
    void jumpWall(double seconds) { _wall += ticks(seconds); }
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
    static std::int64_t ticks(double seconds) { return std::llround(seconds * 1e7); }

    std::int64_t _wall;
    std::int64_t _steady = 5000000000000;  // an arbitrary start
    double _wallStep;
    bool _lastReadWasWall = false;
};

// Installs a clock source for the process clock for its lifetime and resets
// the clock's calibration on the way in and out.
class ScopedClockSources {
  public:
    explicit ScopedClockSources(kestrel::detail::ClockSources& sources) {
        kestrel::detail::setProcessClockSourcesForTesting(&sources);
    }
    ~ScopedClockSources() { kestrel::detail::setProcessClockSourcesForTesting(nullptr); }
    ScopedClockSources(const ScopedClockSources&) = delete;
    ScopedClockSources& operator=(const ScopedClockSources&) = delete;
};

}  // namespace kestrel_test
