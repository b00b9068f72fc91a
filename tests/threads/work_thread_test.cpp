#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <stdexcept>
#include <vector>

#include "kestrel/threads.h"
#include "support/timing.h"

namespace {

using kestrel::Event;
using kestrel::Thread;
using kestrel::WorkThread;
using kestrel_test::waitFor;

// A work thread whose hooks count their calls and run what the test sets
// (while the thread is stopped).
class Probe : public WorkThread {
  public:
    using WorkThread::getState;
    using WorkThread::isStopping;
    using WorkThread::wait;
    std::function<void(Probe&)> onStarting, onRunning, onStopping;
    std::atomic<int> starts{0}, passes{0}, stops{0};
    ~Probe() override { stop(); }

    void untilStopRequested() {
        while (!isStopping()) {
            Thread::sleep(0.001);
        }
    }

  private:
    void starting() override {
        ++starts;
        if (onStarting)
            onStarting(*this);
    }
    void running() override {
        ++passes;
        if (onRunning)
            onRunning(*this);
    }
    void stopping() override {
        ++stops;
        if (onStopping)
            onStopping(*this);
    }
};

TEST(WorkThreadTest, HooksRunInOrderAroundStartAndStop) {
    Probe probe;
    EXPECT_TRUE(probe.stop());  // never started
    probe.onStarting = [](Probe&) { Thread::sleep(0.05); };
    probe.onStopping = [](Probe& self) {
        EXPECT_TRUE(self.isStopping());
        Thread::sleep(0.05);
    };
    ASSERT_TRUE(probe.start());
    EXPECT_EQ(probe.starts, 1);  // start() waited for starting()
    EXPECT_TRUE(probe.isRunning());
    EXPECT_TRUE(probe.start());
    ASSERT_TRUE(waitFor([&] { return probe.passes >= 3; }));  // running() loops
    EXPECT_EQ(probe.stops, 0);
    EXPECT_TRUE(probe.stop());
    EXPECT_EQ(probe.stops, 1);  // stop() waited for stopping()
    EXPECT_EQ(probe.getState(), WorkThread::STOPPED);
    EXPECT_FALSE(probe.isActive());
    const int passes = probe.passes;
    ASSERT_TRUE(probe.start());
    EXPECT_EQ(probe.starts, 2);
    EXPECT_TRUE(probe.stop());
    EXPECT_EQ(probe.stops, 2);
    EXPECT_GT(probe.passes, passes);
}

TEST(WorkThreadTest, WaitsReturnFalseOnlyForAStopRequest) {
    Probe probe;
    std::vector<bool> results;  // written by the work thread, read after stop()
    std::atomic<bool> waited{false};
    probe.onRunning = [&](Probe& self) {
        results.push_back(self.wait(0.0));
        results.push_back(self.wait(-1.0));
        const auto start = std::chrono::steady_clock::now();
        results.push_back(self.wait(0.02) && std::chrono::steady_clock::now() - start >=
                                                 std::chrono::milliseconds(20));
        waited = true;
        self.untilStopRequested();
        results.push_back(self.wait(0.0));   // takes the pending stop
        results.push_back(self.wait(-1.0));  // nothing pending any more
    };
    probe.start();
    ASSERT_TRUE(waitFor([&] { return waited.load(); }));
    probe.stop();
    EXPECT_EQ(results, (std::vector<bool>{true, true, true, false, true}));

    Event event;
    waited = false;
    results.clear();
    probe.onRunning = [&](Probe& self) {
        results.push_back(self.wait(event));
        waited = true;
        event.signal();
        self.untilStopRequested();
        results.push_back(self.wait(event));  // the event wins over the stop
        results.push_back(self.wait(event));
    };
    probe.start();
    event.signal();
    ASSERT_TRUE(waitFor([&] { return waited.load(); }));
    probe.stop();
    EXPECT_EQ(results, (std::vector<bool>{true, true, false}));

    results.clear();
    probe.onRunning = [&](Probe& self) {
        results.push_back(self.wait(Thread::INFINITE_SECONDS) || !self.isStopping());
    };
    probe.start();
    Thread::sleep(0.05);
    probe.stop();
    EXPECT_EQ(results, std::vector<bool>{false});
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
    const int passes = probe.passes;
    ASSERT_TRUE(probe.start());
    ASSERT_TRUE(waitFor([&] { return probe.stops == 2; }));
    EXPECT_EQ(probe.passes, passes + 1);
    EXPECT_TRUE(probe.isRunning());
    EXPECT_TRUE(probe.start());  // still RUNNING: nothing happens
    EXPECT_EQ(probe.starts, 2);
    EXPECT_TRUE(probe.stop());
    EXPECT_FALSE(probe.isActive());

    probe.onRunning = nullptr;
    ASSERT_TRUE(probe.start());
    EXPECT_EQ(probe.starts, 3);
}

}  // namespace
