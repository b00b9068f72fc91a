#include <gtest/gtest.h>

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

double now() {
    return Timestamp().getTime();
}

// Records each execution: its scheduled time and when it actually ran.
class Probe : public TimerThread {
  public:
    struct Run {
        double scheduled, began, ended;
    };
    using TimerThread::TimerThread;
    using WorkThread::isRunning;
    std::function<void()> action;  // set while stopped
    ~Probe() override { stop(); }

    std::vector<Run> runs() {
        const std::lock_guard<std::mutex> lock(_lock);
        return _runs;
    }
    std::vector<Run> awaitRuns(std::size_t n) {
        kestrel_test::waitFor([&] { return runs().size() >= n; });
        return runs();
    }

  private:
    void executing() override {
        Run run{getExecutionTime().getTime(), now(), 0.0};
        EXPECT_EQ(getExecutions(), static_cast<int>(runs().size()) + 1);  // counted first
        if (action)
            action();
        run.ended = now();
        const std::lock_guard<std::mutex> lock(_lock);
        _runs.push_back(run);
    }
    std::mutex _lock;
    std::vector<Run> _runs;  // guarded by _lock
};

TEST(TimerThreadTest, FixedRateStaysOnItsGridAndCatchesUpAfterAnOverrun) {
    Probe timer;
    EXPECT_EQ(timer.getPeriod(), 1.0);
    EXPECT_EQ(timer.getExecutionTime(), timer.getStartTime());
    timer.setPeriod(0.05);  // stopped: only stores the period
    int calls = 0;
    timer.action = [&] {
        if (++calls == 2)
            Thread::sleep(0.125);  // overruns by 2.5 periods
    };
    ASSERT_TRUE(timer.start());
    const auto runs = timer.awaitRuns(6);
    const double start = timer.getStartTime().getTime();
    for (std::size_t i = 0; i < runs.size(); ++i) {  // none skipped, none early
        EXPECT_NEAR(runs[i].scheduled - start, 0.05 * static_cast<double>(i + 1), 1e-5) << i;
        EXPECT_GE(runs[i].began, runs[i].scheduled) << i;
    }
}

TEST(TimerThreadTest, FixedDelayWaitsOnePeriodAfterEachActionAndStopLetsItFinish) {
    Probe timer(TimerThread::FIXED_DELAY, 0.04);
    timer.action = [] { Thread::sleep(0.03); };
    ASSERT_TRUE(timer.start());
    timer.awaitRuns(4);
    timer.stop();
    const auto runs = timer.runs();
    EXPECT_EQ(static_cast<std::size_t>(timer.getExecutions()), runs.size());
    for (std::size_t i = 1; i < runs.size(); ++i) {
        EXPECT_GE(runs[i].began - runs[i - 1].ended, 0.04) << i;
    }
}

TEST(TimerThreadTest, SetPeriodRestartsARunningTimerKeepingCountAndSchedule) {
    Probe timer(static_cast<TimerThread::ExecutionMode>(7), -2.0);  // FIXED_RATE, 1.0
    for (const double bad : {0.0, -2.0, Thread::INFINITE_SECONDS, std::nan("")}) {
        timer.setPeriod(bad);
    }
    EXPECT_EQ(timer.getPeriod(), 1.0);
    timer.setPeriod(0.05);
    ASSERT_TRUE(timer.start());
    const std::size_t before = timer.awaitRuns(2).size();
    const Timestamp started = timer.getStartTime();
    timer.setPeriod(0.08);
    EXPECT_TRUE(timer.isRunning());
    EXPECT_EQ(timer.getStartTime(), started);
    const auto runs = timer.awaitRuns(before + 2);
    EXPECT_NEAR(runs.back().scheduled - runs[runs.size() - 2].scheduled, 0.08, 1e-5);

    timer.setPeriod(30.0);  // the stop comes during the wait
    const int executions = timer.getExecutions();
    const double stopBegan = now();
    timer.stop();
    EXPECT_LT(now() - stopBegan, kestrel_test::kSchedulingAllowance);
    EXPECT_EQ(timer.getExecutions(), executions);
    ASSERT_TRUE(timer.start());  // a fresh start
    EXPECT_EQ(timer.getExecutions(), 0);
    EXPECT_GT(timer.getStartTime(), started);
}

}  // namespace
