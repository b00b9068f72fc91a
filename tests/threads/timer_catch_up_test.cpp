// FIXED_RATE after an overrun, on the fake clock: the executions whose due
// times have passed run at once, one after the other, and the schedule stays
// on the multiples of the period.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <vector>

#include "kestrel/threads.h"
#include "support/fake_clock.h"
#include "support/timing.h"

using namespace kestrel;
using namespace kestrel_test;

TEST(TimerCatchUpTest, FixedRateRunsTheExecutionsAnOverrunMissedWithoutWaiting) {
    constexpr double kPeriod = 0.4;
    FakeClock clock;  // moves only when the first execution says so
    struct Overrun : TimerThread {
        explicit Overrun(FakeClock& c) : TimerThread(FIXED_RATE, kPeriod), clock(c) {}
        ~Overrun() override { stop(); }
        void executing() override {
            due.push_back(getExecutionTime().getTime());
            began.push_back(std::chrono::steady_clock::now());
            if (due.size() == 1)
                clock.advance(4.5 * kPeriod);  // this execution took four and a half periods
            ++runs;
        }
        FakeClock& clock;
        std::vector<double> due;  // read after stop()
        std::vector<std::chrono::steady_clock::time_point> began;
        std::atomic<int> runs{0};
    } timer(clock);
    ASSERT_TRUE(timer.start());
    ASSERT_TRUE(waitFor([&] { return timer.runs >= 4; }));
    timer.stop();
    ASSERT_GE(timer.due.size(), 4U);
    for (std::size_t i = 1; i < timer.due.size(); ++i)
        EXPECT_NEAR(timer.due[i] - timer.due[0], static_cast<double>(i) * kPeriod, 1e-6);
    // The three executions due during the overrun follow the first at once:
    // a timer that waited a period before each would take 1.2 s.
    const std::chrono::duration<double> catchingUp = timer.began[3] - timer.began[0];
    EXPECT_LT(catchingUp.count(), kPeriod);
}
