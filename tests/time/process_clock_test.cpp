#include <gtest/gtest.h>

#include "kestrel/time.h"
#include "support/fake_clock.h"

namespace {

using kestrel::detail::getProcessClockStateForTesting;

constexpr double kTolerance = 0.01;  // seconds; the effects checked are seconds to hours

// Runs the process clock on the fake. x is stopwatch seconds since the
// calibration done by the fixture's first reading.
class ProcessClockTest : public ::testing::TestWithParam<double> {
  protected:
    // Moves both clocks on to stopwatch second x in steps, the wall clock
    // running faster by the fraction drift, and reads the time after each
    // step; returns the last reading.
    double runTo(double x, double step = 1.0, double drift = 0.0) {
        while (_x < x) {
            _clock.advance(step);
            _clock.jumpWall(step * drift);
            _x += step;
            _last = kestrel::Timestamp().getTime();
        }
        return _last;
    }

    kestrel_test::FakeClock _clock;
    const double _base = kestrel::Timestamp().getTime();
    double _x = 0.0;
    double _last = _base;
};

TEST_F(ProcessClockTest, SteadyRateReadingsAreMonotonicAndFollowTheWallClock) {
    EXPECT_EQ(_base, _clock.wallSeconds());
    EXPECT_NEAR(kestrel::Timestamp::getSystemClockGranularity(), 0.001, 1e-6);
    for (double x = 0.25; x <= 700.0; x += 0.25) {  // tracking, sampling, blending, tracking
        const double previous = _last;
        ASSERT_GE(runTo(x, 0.25), previous) << "at x=" << x;
        ASSERT_NEAR(_last, _clock.wallSeconds(), kTolerance) << "at x=" << x;
    }
}

TEST_P(ProcessClockTest, WallClockSetIsBlendedInOverSixtySecondsThenRecalibrated) {
    const double jump = GetParam();
    runTo(500.0);
    ASSERT_EQ(getProcessClockStateForTesting(), 1);
    _clock.jumpWall(jump);
    EXPECT_NEAR(runTo(501.0), _base + 501.0, kTolerance);               // no step at once
    EXPECT_NEAR(runTo(531.0), _base + 531.0 + jump / 2.0, kTolerance);  // halfway
    runTo(562.0);
    EXPECT_NEAR(_last, _clock.wallSeconds(), kTolerance);  // caught up
    EXPECT_EQ(getProcessClockStateForTesting(), 0);
    runTo(563.0);
    EXPECT_EQ(_last, _clock.wallSeconds());  // recalibrated from the wall clock
    EXPECT_EQ(getProcessClockStateForTesting(), 1);
}

INSTANTIATE_TEST_SUITE_P(ForwardAndBack, ProcessClockTest, ::testing::Values(3600.0, -3600.0));

TEST_F(ProcessClockTest, WallClockSetEarlyIsNoticedOnlyAfterTheFirstTrackingPeriod) {
    runTo(100.0);
    _clock.jumpWall(3600.0);
    for (double x = 101.0; x <= 301.0; x += 1.0) {
        ASSERT_NEAR(runTo(x), _base + x, kTolerance) << "at x=" << x;
    }
    EXPECT_EQ(getProcessClockStateForTesting(), 3);
    EXPECT_NEAR(runTo(331.0), _base + 331.0 + 1800.0, kTolerance);
}

TEST_F(ProcessClockTest, SmallDriftIsAbsorbedThroughTheSamplingMean) {
    constexpr double kStep = 10.0;    // a reading every 10 s: 30 samples take 300 s
    constexpr double kDrift = 0.005;  // the wall clock runs 0.5 % fast
    // 60 s of sampling have passed but only 29 samples: still sampling, and
    // the drift, 3 s by now, started no blend of its own.
    EXPECT_NEAR(runTo(600.0, kStep, kDrift), _base + 600.0, kTolerance);
    EXPECT_NEAR(_clock.wallSeconds() - _last, 3.0, kTolerance);
    EXPECT_EQ(getProcessClockStateForTesting(), 2);
    runTo(680.0, kStep, kDrift);  // the 30th sample at 610, then the blend
    EXPECT_EQ(getProcessClockStateForTesting(), 1);
    runTo(700.0, kStep, kDrift);
    EXPECT_NEAR(_last, _clock.wallSeconds(), kTolerance);
}

}  // namespace
