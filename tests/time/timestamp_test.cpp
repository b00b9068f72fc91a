#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <memory>
#include <thread>
#include <vector>

#include "kestrel/testing/clock.h"
#include "kestrel/time.h"
#include "support/fake_clock.h"
#include "support/os.h"
#include "support/timing.h"
#include "time/process_clock.h"

using namespace kestrel;
using namespace kestrel_test;

// Runs the process clock on the fake, to 0.01 s (the effects checked are
// seconds to hours). x is stopwatch seconds since the calibration done by
// the fixture's first reading.
class ProcessClockTest : public ::testing::TestWithParam<std::tuple<double, double>> {
  protected:
    // Moves both clocks on to stopwatch second x in steps, the wall clock
    // running faster by the fraction drift, and reads the time after each
    // step; returns the last reading.
    double runTo(double x, double step = 1.0, double drift = 0.0) {
        for (; _x < x; _x += step) {
            _clock.advance(step, step * drift);
            _last = Timestamp().getTime();
        }
        return _last;
    }

    FakeClock _clock;
    const double _base = Timestamp().getTime();
    double _x = 0.0, _last = _base;
};

TEST_P(ProcessClockTest, WallClockSetIsBlendedInOverSixtySecondsThenRecalibrated) {
    const auto [setAt, jump] = GetParam();
    runTo(setAt);
    _clock.advance(0.0, jump);
    const double seen = (setAt < 300.0 ? 300.0 : setAt) + 1.0;  // no jump check before 300 s
    EXPECT_NEAR(runTo(seen), _base + seen, 0.01);               // no step at once
    EXPECT_NEAR(runTo(seen + 30.0), _base + seen + 30.0 + jump / 2.0, 0.01);  // halfway
    runTo(seen + 61.0);
    EXPECT_NEAR(_last, _clock.wallSeconds(), 0.01);  // caught up
    runTo(seen + 62.0);
    EXPECT_EQ(_last, _clock.wallSeconds());  // recalibrated from the wall clock
}

INSTANTIATE_TEST_SUITE_P(LateAndEarlyForwardAndBack, ProcessClockTest,
                         ::testing::Combine(::testing::Values(500.0, 100.0),
                                            ::testing::Values(3600.0, -3600.0)));

TEST_F(ProcessClockTest, SmallDriftIsAbsorbedThroughTheSamplingMean) {
    EXPECT_NEAR(Timestamp::getSystemClockGranularity(), 0.001, 1e-6);
    // A reading every 10 s with the wall clock 0.5 % fast: after 60 s of
    // sampling there are only 29 samples, so it still samples, and the
    // drift, 3 s by now, started no blend of its own.
    EXPECT_NEAR(runTo(600.0, 10.0, 0.005), _base + 600.0, 0.01);
    EXPECT_EQ(detail::getProcessClockStateForTesting(), 2);
    runTo(700.0, 10.0, 0.005);  // the 30th sample at 610, the blend, then tracking
    EXPECT_NEAR(_last, _clock.wallSeconds(), 0.01);
}

// A reader on the unlocked path holds the old calibration's base and rate
// while the wall clock is set, blended in and recalibrated to: its reading
// must still be the new calibration's.
TEST_F(ProcessClockTest, AReaderOverlappingARecalibrationGetsTheNewTime) {
    double read = 0.0;
    _clock.pause = 0;
    std::thread reader([&] { read = Timestamp().getTime(); });
    EXPECT_TRUE(waitFor([&] { return _clock.pause == 1; }));
    runTo(310.0);
    _clock.advance(0.0, 100.0);
    runTo(400.0);
    _clock.pause = 2;
    reader.join();
    EXPECT_NEAR(read, _last, 0.01);
}

TEST(TimestampTest, NothingComparesTrueWithNaNAndTheTimeVectorIsLocalCalendarTime) {
    const Timestamp nan(std::nan("")), t = Timestamp(5.0) - 3.0;
    EXPECT_FALSE(nan == nan || nan < t || nan <= t || nan > t || t >= nan || t.isEquivalent(t, 0));
    EXPECT_TRUE(nan != nan && t.isEquivalent(2.0005, 0.001) && !t.isEquivalent(2.002, 0.001));
    std::vector<double> v;
    setEnv("TZ", "XYZ-2");  // two hours ahead of UTC
    fcns::time::createTimeVector(1.5, v);
    EXPECT_EQ(v, (std::vector<double>{1970, 1, 1, 2, 0, 1.5}));
    unsetEnv("TZ");
    for (const double bad : {0.0, -1.0, std::nan(""), 1e300}) {
        Timestamp(bad).getTimeVector(v);
        EXPECT_TRUE(v.empty()) << bad;
    }
}

// setClockSources() returns only once no reading of the sources it replaced
// is in progress, whatever other threads do meanwhile: a test may destroy
// them at once. A reading here that sees its sources retired while it runs
// is one that the replacement did not wait for.
TEST(TestingClockTest, ReplacedSourcesAreNoLongerReadOnceTheReplacementReturns) {
    std::atomic<int> lateReadings{0};
    struct Sources : kestrel::testing::ClockSources {
        explicit Sources(std::atomic<int>& l) : late(l) {}
        std::int64_t wallTicks() override { return check(wall += 10000); }  // 1 ms steps
        std::int64_t wallTicksAtTimeZero() override { return 0; }
        std::int64_t steadyNanoseconds() override { return check(steady += 1000); }
        std::int64_t check(std::int64_t value) {
            // Long enough for a replacement to overlap most readings.
            std::this_thread::sleep_for(std::chrono::microseconds(100));
            late += retired ? 1 : 0;
            return value;
        }
        std::atomic<std::int64_t> wall{17000000000000000}, steady{0};
        std::atomic<bool> retired{false};
        std::atomic<int>& late;
    };
    std::atomic<bool> done{false};
    std::atomic<long> readings{0};
    const auto read = [&] {
        for (; !done; ++readings)
            Timestamp();
    };
    std::thread readers[2] = {std::thread(read), std::thread(read)};
    std::unique_ptr<Sources> all[100];
    for (int i = 0; i < 100; ++i) {
        all[i] = std::make_unique<Sources>(lateReadings);
        kestrel::testing::setClockSources(all[i].get());
        if (i > 0)
            all[i - 1]->retired = true;
        const long seen = readings;
        waitFor([&] { return readings > seen + 2; });
    }
    kestrel::testing::setClockSources(nullptr);
    all[99]->retired = true;
    done = true;
    for (std::thread& reader : readers)
        reader.join();
    EXPECT_EQ(lateReadings, 0);
}
