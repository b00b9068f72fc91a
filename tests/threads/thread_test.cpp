#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <functional>
#include <thread>
#include <vector>

#include "kestrel/threads.h"
#include "support/timing.h"

using namespace kestrel;
using namespace kestrel_test;

TEST(EventTest, ManualResetSignalReleasesEveryWaiter) {
    Event event(true);
    std::thread a([&] { event.wait(); }), b([&] { event.wait(); });
    Thread::sleep(0.02);  // lets both block, most of the time
    event.signal();
    a.join();  // a lost wake-up hangs here
    b.join();
}

// A second start() of an active thread does nothing; an exception from run()
// ends the thread without reaching anyone; after join() it starts again.
TEST(ThreadTest, StartsOnceUntilJoinedAndKeepsRunsExceptionsToItself) {
    struct Thrower : Thread {
        std::atomic<int> runs{0};
        std::atomic<bool> release{false};
        bool run() override {
            ++runs;
            waitFor([&] { return release.load(); });
            throw 42;
        }
    } thread;
    for (int round = 1; round <= 2; ++round) {
        EXPECT_TRUE(thread.start() && thread.start());
        EXPECT_TRUE(thread.isActive());
        thread.release = true;
        thread.join();
        EXPECT_FALSE(thread.isActive());
        EXPECT_EQ(thread.runs, round);
        thread.release = false;
    }
}

enum Hook { kStarting, kRunning, kStopping };

// Counts the calls of its hooks, and their ends, and runs the hooks that the
// test sets while it is stopped.
class Probe : public WorkThread {
  public:
    using WorkThread::isStopping;
    using WorkThread::wait;
    std::function<void(Probe&)> hooks[3] = {skip, skip, skip};
    std::atomic<int> calls[3]{}, ends[3]{};
    ~Probe() override { stop(); }

  private:
    static void skip(Probe&) {}
    void call(Hook hook) {
        ++calls[hook];
        hooks[hook](*this);
        ++ends[hook];
    }
    void starting() override { call(kStarting); }
    void running() override { call(kRunning); }
    void stopping() override { call(kStopping); }
};

TEST(WorkThreadTest, StartWaitsForStartingAndStopForStoppingAndBothRepeat) {
    Probe probe;
    EXPECT_TRUE(probe.stop());  // never started
    probe.hooks[kStarting] = probe.hooks[kStopping] = [](Probe&) { Thread::sleep(0.02); };
    for (int round = 1; round <= 2; ++round) {
        probe.calls[kRunning] = 0;
        ASSERT_TRUE(probe.start() && probe.start());
        EXPECT_EQ(probe.ends[kStarting], round);  // start() waited for starting(), run once
        ASSERT_TRUE(waitFor([&] { return probe.calls[kRunning] >= 3; }));
        EXPECT_EQ(probe.calls[kStopping], round - 1);
        EXPECT_TRUE(probe.stop() && !probe.isActive());
        EXPECT_EQ(probe.ends[kStopping], round);  // stop() waited for stopping()
    }
}

TEST(WorkThreadTest, WaitsAreFalseOnlyForAStopRequestWhichTheyConsume) {
    Probe probe;
    Event event, manual(true, true);
    std::vector<bool> r;  // written on the work thread, read after stop()
    probe.hooks[kRunning] = [&](Probe& self) {
        waitFor([&] { return self.isStopping(); });
        event.signal();
        // The event is tested before the stop; then, as it resets itself, only the stop
        // ends a wait, which consumes it, so that no stop is pending any more.
        r = {self.wait(event), !self.wait(event), self.wait(0.0),
             self.wait(-1.0),  self.wait(manual), self.wait(manual)};
    };
    ASSERT_TRUE(probe.start());
    probe.stop();
    EXPECT_EQ(r, std::vector<bool>(6, true));
    r.clear();
    probe.hooks[kRunning] = [&](Probe& self) { r.push_back(self.wait(Thread::INFINITE_SECONDS)); };
    ASSERT_TRUE(probe.start());
    probe.stop();
    EXPECT_EQ(r, std::vector<bool>{false});  // one wait, ended by the stop
}

// Records each execution; the second overruns a period of 0.05 s by 2.5 periods.
class Ticker : public TimerThread {
  public:
    struct Run {
        double scheduled, began, ended, period;
    };
    using TimerThread::TimerThread;
    std::vector<Run> runs;  // read after stop()
    ~Ticker() override { stop(); }

  private:
    void executing() override {
        runs.push_back({getExecutionTime().getTime(), Timestamp().getTime(), 0.0, getPeriod()});
        Thread::sleep(runs.size() == 2 ? 0.125 : 0.0);
        runs.back().ended = Timestamp().getTime();
    }
};

TEST(TimerThreadTest, KeepsItsScheduleAndCountThroughAnOverrunAndAPeriodChange) {
    for (const bool delay : {false, true}) {  // 7 schedules as FIXED_RATE; NaN leaves 1 s
        Ticker timer(delay ? TimerThread::FIXED_DELAY : TimerThread::ExecutionMode{7}, NAN);
        EXPECT_EQ(timer.getPeriod(), 1.0);
        timer.setPeriod(0.05);  // stopped: only stores the period
        ASSERT_TRUE(timer.start());
        ASSERT_TRUE(waitFor([&] { return timer.getExecutions() >= 6; }));
        const Timestamp started = timer.getStartTime();
        timer.setPeriod(0.08);  // restarts the thread
        ASSERT_TRUE(waitFor([&] { return timer.getExecutions() >= 9; }));
        timer.setPeriod(30.0);  // restarts it again: the stop comes during the wait
        const double stopBegan = Timestamp().getTime();
        timer.stop();
        EXPECT_LT(Timestamp().getTime() - stopBegan, kSchedulingAllowance);
        EXPECT_EQ(timer.getStartTime(), started);
        // No execution at the stop, none lost to a restart.
        ASSERT_EQ(static_cast<std::size_t>(timer.getExecutions()), timer.runs.size());
        double previous = started.getTime();
        for (const auto& run : timer.runs) {  // none early; at the rate, none skipped
            EXPECT_GE(run.began, run.scheduled);
            const double gap = run.scheduled - previous;
            EXPECT_TRUE(gap > run.period - 1e-6 && (delay || gap < run.period + 1e-6)) << gap;
            previous = delay ? run.ended : run.scheduled;
        }
        ASSERT_TRUE(timer.start());  // a fresh start
        EXPECT_TRUE(timer.getExecutions() == 0 && timer.getStartTime() > started);
    }
}
