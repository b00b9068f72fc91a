#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <limits>
#include <vector>

#include "kestrel/threads.h"
#include "support/fake_clock.h"
#include "support/idle.h"
#include "support/other_thread.h"

using namespace kestrel;
using namespace kestrel_test;

namespace {

// Records each execution; the second overruns a period of 0.05 s by 2.5 periods.
struct Ticker : TimerThread {
    struct Run {
        double scheduled, began, ended, period;
    };
    using TimerThread::TimerThread;
    using WorkThread::isRunning;
    std::vector<Run> runs;    // read after stop()
    std::size_t throwAt = 0;  // the execution that throws
    ~Ticker() override { stop(); }
    void executing() override {
        runs.push_back({getExecutionTime().getTime(), Timestamp().getTime(), 0.0, getPeriod()});
        runs.size() == throwAt ? throw 42 : void();
        Thread::sleep(runs.size() == 2 ? 0.125 : 0.0);
        runs.back().ended = Timestamp().getTime();
    }
};

struct Counter : TimerThread {
    using TimerThread::TimerThread;
    std::atomic<int> executions{0};
    ~Counter() override { stop(); }
    void executing() override { ++executions; }
};

}  // namespace

TEST(TimerThreadTest, KeepsItsScheduleAndCountThroughAnOverrunAndAPeriodChange) {
    for (const bool delay : {false, true}) {  // 7 schedules as FIXED_RATE
        Ticker timer(delay ? TimerThread::FIXED_DELAY : TimerThread::ExecutionMode{7}, 1.0);
        timer.setPeriod(0.05);  // stopped: only stores the period
        ASSERT_TRUE(timer.start());
        ASSERT_TRUE(waitFor([&] { return timer.getExecutions() >= 6; }));
        const Timestamp started = timer.getStartTime();
        timer.setPeriod(0.08);  // restarts the thread
        ASSERT_TRUE(waitFor([&] { return timer.getExecutions() >= 9; }));
        timer.setPeriod(30.0);  // restarts it again: the stop comes during the wait
        const double stopBegan = Timestamp().getTime();
        timer.stop();
        EXPECT_LT(Timestamp().getTime() - stopBegan, kBlockedAfter);
        EXPECT_EQ(timer.getStartTime(), started);
        // No execution at the stop, none lost to a restart.
        ASSERT_EQ(static_cast<std::size_t>(timer.getExecutions()), timer.runs.size());
        double previous = started.getTime();
        for (const auto& run : timer.runs) {
            // Never early, after a wait not even by the margin; at the rate, none skipped.
            EXPECT_GE(run.began, run.scheduled + (delay ? 4e-4 : 0.0));
            const double gap = run.scheduled - previous;
            EXPECT_TRUE(gap > run.period - 1e-6 && (delay || gap < run.period + 1e-6)) << gap;
            previous = delay ? run.ended : run.scheduled;
        }
        ASSERT_TRUE(timer.start());  // a fresh start
        EXPECT_TRUE(timer.getExecutions() == 0 && timer.getStartTime() > started);
    }
}

// FIXED_RATE after an overrun, on the fake clock: the executions whose due
// times have passed run at once, one after the other, and the schedule stays
// on the multiples of the period.
TEST(TimerThreadTest, FixedRateRunsTheExecutionsAnOverrunMissedWithoutWaiting) {
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
    // a timer that waited a period before each would take 1.2 s. (Twice
    // a period: the thread may be held up on a loaded machine.)
    const std::chrono::duration<double> catchingUp = timer.began[3] - timer.began[0];
    EXPECT_LT(catchingUp.count(), 2 * kPeriod);
}

// Periods that are no positive number leave 1 s; huge ones sleep, idle,
// until the stop, which ends the wait at once.
TEST(TimerThreadTest, OddPeriodsKeepTheirMeaningWithoutSpinning) {
    constexpr double kInf = std::numeric_limits<double>::infinity();
    for (double period : {0.0, -1.0, std::nan(""), kInf, -kInf})
        EXPECT_EQ(Counter(TimerThread::FIXED_RATE, period).getPeriod(), 1.0) << period;
    for (double period : {1e300, std::numeric_limits<double>::max()}) {
        Counter timer(TimerThread::FIXED_DELAY, 0.001);
        ASSERT_TRUE(timer.start());
        ASSERT_TRUE(waitFor([&] { return timer.executions > 0; }));
        const std::vector<long> before = newTasks();
        timer.setPeriod(period);  // restarts: the next execution is ages away
        const int executions = timer.getExecutions();
        const std::vector<long> timerThread = newTasks(before);
        ASSERT_EQ(timerThread.size(), 1u);
        expectIdle(timerThread);
        EXPECT_EQ(timer.getExecutions(), executions);
        const double stopBegan = Timestamp().getTime();
        timer.stop();
        EXPECT_LT(Timestamp().getTime() - stopBegan, kBlockedAfter);
    }
}

TEST(TimerThreadTest, AThrowingExecutionLeavesTheTimerStoppableAndRestartable) {
    Ticker timer(TimerThread::FIXED_RATE, 0.01);
    timer.throwAt = 1;
    expectUsableAfterFault(timer, true, [&] { return timer.getExecutions(); });
}
