#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <functional>
#include <mutex>
#include <vector>

#include "kestrel/threads.h"
#include "support/timing.h"

namespace {

using kestrel::Thread;
using kestrel::TimerThread;
using kestrel::Timestamp;
using kestrel_test::kSchedulingAllowance;
using kestrel_test::waitFor;

double steadySeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Records each execution: its count, scheduled time and steady-clock span.
class Probe : public TimerThread {
  public:
    struct Execution {
        int count;
        double scheduled, began, ended;
    };
    using TimerThread::TimerThread;
    using WorkThread::isRunning;
    std::function<void()> action;  // set while stopped
    ~Probe() override { stop(); }

    std::vector<Execution> executions() {
        const std::lock_guard<std::mutex> lock(_lock);
        return _executions;
    }
    bool awaitExecutions(std::size_t n) {
        return waitFor([&] { return executions().size() >= n; });
    }

  private:
    void executing() override {
        Execution e{getExecutions(), getExecutionTime().getTime(), steadySeconds(), 0.0};
        if (action)
            action();
        e.ended = steadySeconds();
        const std::lock_guard<std::mutex> lock(_lock);
        _executions.push_back(e);
    }
    std::mutex _lock;
    std::vector<Execution> _executions;  // guarded by _lock
};

TEST(TimerThreadTest, ConstructorAcceptsOnlyFinitePositivePeriods) {
    const Timestamp before;
    Probe standard;
    EXPECT_EQ(standard.getPeriod(), 1.0);
    EXPECT_EQ(standard.getExecutions(), 0);
    EXPECT_GE(standard.getStartTime(), before);
    EXPECT_EQ(standard.getExecutionTime(), standard.getStartTime());
    for (double bad : {0.0, -2.0, Thread::INFINITE_SECONDS, std::nan("")}) {
        EXPECT_EQ(Probe(TimerThread::FIXED_RATE, bad).getPeriod(), 1.0) << bad;
    }
    Probe delayed(TimerThread::FIXED_DELAY, 0.25);
    EXPECT_EQ(delayed.getPeriod(), 0.25);
    delayed.setPeriod(0.5);  // stopped: only stores the period
    EXPECT_EQ(delayed.getPeriod(), 0.5);
    EXPECT_FALSE(delayed.isRunning());
}

TEST(TimerThreadTest, FixedRateStaysOnItsGridAndCatchesUpAfterAnOverrun) {
    Probe timer;
    timer.setPeriod(0.05);
    int calls = 0;
    timer.action = [&] {
        if (++calls == 2)
            Thread::sleep(0.125);  // overruns by 2.5 periods
    };
    ASSERT_TRUE(timer.start());
    ASSERT_TRUE(timer.awaitExecutions(6));
    const double start = timer.getStartTime().getTime();
    const auto runs = timer.executions();
    for (std::size_t i = 0; i < runs.size(); ++i) {
        EXPECT_EQ(runs[i].count, static_cast<int>(i) + 1);
        EXPECT_NEAR(runs[i].scheduled - start, 0.05 * runs[i].count, 1e-5) << i;
    }
    // The executions due during the overrun ran late, none ran early.
    EXPECT_LT(runs[3].scheduled, runs[1].scheduled + 0.125);
    for (std::size_t i = 1; i < runs.size(); ++i) {
        EXPECT_GE(runs[i].began - runs[0].began, runs[i].scheduled - runs[0].scheduled - 1e-3);
    }
}

TEST(TimerThreadTest, FixedDelayWaitsOnePeriodAfterEachAction) {
    Probe timer(TimerThread::FIXED_DELAY, 0.04);
    timer.action = [] { Thread::sleep(0.03); };
    ASSERT_TRUE(timer.start());
    ASSERT_TRUE(timer.awaitExecutions(4));
    timer.stop();
    const auto runs = timer.executions();
    for (std::size_t i = 1; i < runs.size(); ++i) {
        EXPECT_GE(runs[i].began - runs[i - 1].ended, 0.04) << i;
        EXPECT_GE(runs[i].scheduled - runs[i - 1].scheduled, 0.07 - 1e-3) << i;
    }
}

TEST(TimerThreadTest, SetPeriodOnARunningTimerKeepsCountAndSchedule) {
    Probe timer(static_cast<TimerThread::ExecutionMode>(7), 0.05);  // schedules as FIXED_RATE
    ASSERT_TRUE(timer.start());
    ASSERT_TRUE(timer.awaitExecutions(2));
    const Timestamp started = timer.getStartTime();
    timer.setPeriod(0.05);
    timer.setPeriod(0.08);
    EXPECT_TRUE(timer.isRunning());
    EXPECT_EQ(timer.getStartTime(), started);
    const std::size_t before = timer.executions().size();
    ASSERT_TRUE(timer.awaitExecutions(before + 2));
    const auto runs = timer.executions();
    EXPECT_NEAR(runs.back().scheduled - runs[runs.size() - 2].scheduled, 0.08, 1e-5);
    for (std::size_t i = 0; i < runs.size(); ++i) {
        EXPECT_EQ(runs[i].count, static_cast<int>(i) + 1);
    }
    timer.stop();
    ASSERT_TRUE(timer.start());
    EXPECT_EQ(timer.getExecutions(), 0);
    EXPECT_GT(timer.getStartTime(), started);
}

TEST(TimerThreadTest, StopEndsTheWaitAtOnceButLetsAnActionFinish) {
    Probe timer(TimerThread::FIXED_RATE, 0.05);
    std::atomic<bool> finished{false};
    timer.action = [&] {
        Thread::sleep(0.1);
        finished = true;
    };
    ASSERT_TRUE(timer.start());
    ASSERT_TRUE(waitFor([&] { return timer.getExecutions() >= 1; }));  // counted before it runs
    EXPECT_TRUE(timer.executions().empty());
    timer.stop();
    EXPECT_TRUE(finished);
    EXPECT_EQ(static_cast<std::size_t>(timer.getExecutions()), timer.executions().size());

    timer.setPeriod(30.0);
    ASSERT_TRUE(timer.start());
    const double stopBegan = steadySeconds();
    timer.stop();
    EXPECT_LT(steadySeconds() - stopBegan, kSchedulingAllowance);
    EXPECT_EQ(timer.getExecutions(), 0);
}

}  // namespace
