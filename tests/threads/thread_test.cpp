#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <functional>
#include <thread>
#include <vector>

#include "kestrel/threads.h"
#include "support/other_thread.h"

using namespace kestrel;
using namespace kestrel_test;

// A second start() of an active thread does nothing; an exception from run()
// ends the thread without reaching anyone; after join() it starts again. The
// threads wait for a manual-reset event, whose signal releases both.
TEST(ThreadTest, StartsOnceUntilJoinedAndKeepsRunsExceptionsToItself) {
    static Event gate(true);
    struct Thrower : Thread {
        std::atomic<int> runs{0};
        bool run() override {
            ++runs;
            gate.wait();
            throw 42;
        }
    } threads[2];
    for (int round = 1; round <= 2; ++round) {
        gate.reset();
        for (auto& thread : threads) {
            EXPECT_TRUE(thread.start() && thread.start() && thread.isActive());
        }
        Thread::sleep(0.02);  // lets both block, most of the time
        gate.signal();
        for (auto& thread : threads) {
            thread.join();  // a lost wake-up hangs here
            EXPECT_TRUE(!thread.isActive() && thread.runs == round);
        }
    }
}

enum Hook { kStarting, kRunning, kStopping };

// Counts the calls of its hooks, and their ends, and runs the hooks that the
// test sets while it is stopped.
struct Probe : WorkThread {
    using WorkThread::isStopping;
    using WorkThread::wait;
    std::function<void(Probe&)> hooks[3] = {skip, skip, skip};
    std::atomic<int> calls[3]{}, ends[3]{};
    ~Probe() override { stop(); }
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

TEST(WorkThreadTest, StartAndStopAwaitTheirHooksAndWaitsAreFalseOnlyForAStopTheyConsume) {
    Probe probe;
    EXPECT_TRUE(probe.stop());  // never started
    Event event, manual(true, true);
    std::vector<bool> r;  // what the waits return, negated where false is expected
    int round = 0;
    // No stop is pending at a start, even after a round that consumed none.
    probe.hooks[kStarting] = [&](Probe& self) {
        Thread::sleep(0.02);
        r = {self.wait(0.0)};
    };
    probe.hooks[kRunning] = [&](Probe& self) {
        waitFor([&] { return self.isStopping(); });
        if (round == 1) {  // the event is tested before the stop; a manual-reset one stays set
            event.signal();
            r.insert(r.end(), {self.wait(event), self.wait(manual), self.wait(manual)});
        } else {  // only the stop ends the first wait, which consumes it
            const double seconds = round == 3 ? 30.0 : Thread::INFINITE_SECONDS;
            r.push_back(!(round == 2 ? self.wait(event) : self.wait(seconds)));
            r.insert(r.end(), {self.wait(0.0), self.wait(-1.0)});
        }
    };
    probe.hooks[kStopping] = [](Probe&) { Thread::sleep(0.02); };
    while (++round <= 4) {
        ASSERT_TRUE(probe.start() && probe.start());
        EXPECT_EQ(probe.ends[kStarting], round);  // start() waited for starting(), run once
        EXPECT_TRUE(probe.stop() && !probe.isActive());
        EXPECT_EQ(probe.ends[kStopping], round);  // stop() waited for stopping()
        EXPECT_EQ(r, std::vector<bool>(r.size(), true)) << round;
    }
}

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

// A hook that throws once: the failure stays on the work thread. After
// running() or executing() threw, the loop has ended for good, yet the state
// stays RUNNING until stop(). Another thread then stops the thread, starts it
// again and stops it: no lock was left held.
TEST(ThreadFaultTest, ThrowingHooksLeaveTheThreadStoppableAndRestartable) {
    const auto check = [](auto& thread, bool loopEnds, auto busy) {
        ASSERT_TRUE(thread.start());
        ASSERT_TRUE(waitFor([&] { return busy() > 0; }));
        if (loopEnds) {
            Thread::sleep(0.05);
            EXPECT_EQ(busy(), 1);
            EXPECT_TRUE(thread.isRunning() && thread.start());
        }
        runOnAnotherThread([&] {
            EXPECT_TRUE(thread.stop() && !thread.isRunning());
            const int before = busy();
            EXPECT_TRUE(thread.start() && waitFor([&] { return busy() > before; }));
            EXPECT_TRUE(thread.stop());
        });
    };
    for (const Hook hook : {kStarting, kRunning, kStopping}) {
        SCOPED_TRACE(hook);
        Probe probe;
        probe.hooks[hook] = [hook](Probe& self) { self.calls[hook] == 1 ? throw 42 : void(); };
        check(probe, hook == kRunning, [&] { return probe.calls[kRunning].load(); });
        EXPECT_TRUE(probe.calls[kStarting] == 2 && probe.calls[kStopping] == 2);
    }
    Ticker timer(TimerThread::FIXED_RATE, 0.01);
    timer.throwAt = 1;
    check(timer, true, [&] { return timer.getExecutions(); });
}
