#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <thread>
#include <vector>

#include "kestrel/threads.h"
#include "support/timing.h"

namespace {

using kestrel::Event;
using kestrel::Thread;
using kestrel::WorkThread;
using kestrel_test::waitFor;
using Clock = std::chrono::steady_clock;

double since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

class BlockingThread : public Thread {
  public:
    using Thread::getID;
    std::atomic<int> runs{0};
    std::atomic<bool> release{false}, finished{false};
    ID seenID;  // written before runs is incremented

  private:
    bool run() override {
        seenID = getCurrentID();
        ++runs;
        waitFor([&] { return release.load(); });
        finished = true;
        throw std::runtime_error("stays on this thread");
    }
};

TEST(ThreadTest, StartRunsOnceUntilJoinAndAgainAfterIt) {
    BlockingThread thread;
    thread.join();  // never started
    for (int round = 1; round <= 2; ++round) {
        thread.release = false;
        ASSERT_TRUE(thread.start());
        EXPECT_TRUE(thread.start());
        ASSERT_TRUE(waitFor([&] { return thread.runs == round; }));
        EXPECT_EQ(thread.getID(), thread.seenID);
        thread.release = true;
        ASSERT_TRUE(waitFor([&] { return thread.finished.exchange(false); }));
        EXPECT_TRUE(thread.isActive());  // until join(), also after run() raised
        thread.join();
        EXPECT_FALSE(thread.isActive());
        EXPECT_EQ(thread.getID(), Thread::ID());
    }
    thread.join();
    EXPECT_EQ(thread.runs, 2);
}

TEST(ThreadTest, SleepRoundsToMicrosecondsAndSkipsNonPositiveDurations) {
    auto start = Clock::now();
    for (const double seconds : {-1.0, 0.0, 4e-7}) {
        Thread::sleep(seconds);
    }
    EXPECT_LT(since(start), kestrel_test::kSchedulingAllowance);
    start = Clock::now();
    Thread::sleep(0.02);
    EXPECT_GE(since(start), 0.02);
}

TEST(EventTest, SignalReleasesOneWaiterWhenAutoResetAndAllWhenManualReset) {
    for (const bool manual : {false, true}) {
        Event event(manual, true);
        event.wait();  // starts set
        event.reset();
        std::atomic<int> released{0};
        std::vector<std::thread> waiters;
        for (int i = 0; i < 3; ++i) {
            waiters.emplace_back([&] {
                event.wait();
                ++released;
            });
        }
        Thread::sleep(0.02);  // lets the waiters block
        event.signal();
        const int expected = manual ? 3 : 1;
        EXPECT_TRUE(waitFor([&] { return released == expected; }));
        Thread::sleep(0.05);
        EXPECT_EQ(released, expected) << manual;
        while (released < 3) {
            event.signal();
            Thread::sleep(0.001);
        }
        for (auto& waiter : waiters) {
            waiter.join();
        }
    }
}

// Counts its hook calls and runs what the test sets while it is stopped.
class Probe : public WorkThread {
  public:
    using WorkThread::getState;
    using WorkThread::isStopping;
    using WorkThread::wait;
    std::function<void(Probe&)> onStarting, onRunning, onStopping;
    std::atomic<int> starts{0}, passes{0}, stops{0};
    std::atomic<bool> ready{false};
    std::vector<bool> results;  // written by the work thread, read after stop()
    ~Probe() override { stop(); }

    void awaitStopRequest() {
        ready = true;
        waitFor([&] { return isStopping(); });
    }

  private:
    using Hook = std::function<void(Probe&)>;
    void call(std::atomic<int>& count, const Hook& hook) {
        ++count;
        if (hook)
            hook(*this);
    }
    void starting() override { call(starts, onStarting); }
    void running() override { call(passes, onRunning); }
    void stopping() override { call(stops, onStopping); }
};

TEST(WorkThreadTest, HooksRunInOrderAroundStartAndStop) {
    Probe probe;
    EXPECT_TRUE(probe.stop());  // never started
    probe.onStarting = [](Probe&) { Thread::sleep(0.05); };
    probe.onStopping = [](Probe& self) { EXPECT_TRUE(self.isStopping()); };
    for (int round = 1; round <= 2; ++round) {
        ASSERT_TRUE(probe.start());
        EXPECT_EQ(probe.starts, round);  // start() waited for starting()
        EXPECT_TRUE(probe.start() && probe.isRunning());
        const int passes = probe.passes;
        ASSERT_TRUE(waitFor([&] { return probe.passes >= passes + 3; }));
        EXPECT_EQ(probe.stops, round - 1);
        EXPECT_TRUE(probe.stop());
        EXPECT_EQ(probe.stops, round);  // stop() waited for stopping()
        EXPECT_EQ(probe.getState(), WorkThread::STOPPED);
    }
    EXPECT_EQ(probe.starts, 2);
}

TEST(WorkThreadTest, WaitsReturnFalseOnlyForAStopRequest) {
    Probe probe;
    Event event;
    const auto pass = [&](std::function<void(Probe&)> script) {
        probe.results.clear();
        probe.ready = false;
        probe.onRunning = std::move(script);
        EXPECT_TRUE(probe.start());
        EXPECT_TRUE(waitFor([&] { return probe.ready.load(); }));
        probe.stop();
        return probe.results;
    };
    EXPECT_EQ(pass([](Probe& self) {
                  self.results = {self.wait(0.0), self.wait(-1.0)};
                  const auto start = Clock::now();
                  self.results.push_back(self.wait(0.02) && since(start) >= 0.02);
                  self.awaitStopRequest();
                  self.results.push_back(self.wait(0.0));   // takes the stop
                  self.results.push_back(self.wait(-1.0));  // nothing pending any more
              }),
              (std::vector<bool>{true, true, true, false, true}));
    EXPECT_EQ(pass([&](Probe& self) {
                  std::thread signaller([&] {
                      Thread::sleep(0.02);
                      event.signal();
                  });
                  self.results.push_back(self.wait(event));
                  signaller.join();
                  event.signal();
                  self.awaitStopRequest();
                  self.results.push_back(self.wait(event));  // the event wins over the stop
                  self.results.push_back(self.wait(event));
              }),
              (std::vector<bool>{true, true, false}));
    EXPECT_EQ(pass([](Probe& self) {
                  self.ready = true;
                  self.results.push_back(self.wait(Thread::INFINITE_SECONDS) || !self.isStopping());
              }),
              std::vector<bool>{false});
}

TEST(WorkThreadTest, HookExceptionsAreSwallowedAndLeaveTheStateToStop) {
    Probe probe;
    probe.onStarting = [](Probe&) { throw std::runtime_error("starting failed"); };
    ASSERT_TRUE(probe.start());
    EXPECT_TRUE(probe.isRunning());
    EXPECT_TRUE(waitFor([&] { return probe.passes > 0; }));
    probe.stop();
    probe.onStarting = nullptr;
    probe.onRunning = [](Probe&) { throw std::runtime_error("running failed"); };
    probe.onStopping = [](Probe&) { throw 42; };
    ASSERT_TRUE(probe.start());
    ASSERT_TRUE(waitFor([&] { return probe.stops == 2; }));
    EXPECT_TRUE(probe.isRunning() && probe.start());  // still RUNNING: start() does nothing
    EXPECT_EQ(probe.starts, 2);
    EXPECT_TRUE(probe.stop());
    EXPECT_FALSE(probe.isActive());
}

}  // namespace
