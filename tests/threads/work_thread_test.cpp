// The life cycle and the stop-aware waits. The waits block: a thread waiting
// for an event, for its stop, or for a far deadline does not wake until one
// of them is due, takes each auto-reset signal once, and gives the event
// precedence over a stop that arrives with it.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <functional>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "kestrel/threads.h"
#include "support/idle.h"
#include "support/other_thread.h"
#include "threads/signal_hook.h"

using namespace kestrel;
using namespace kestrel_test;

namespace {

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

// Runs body as its pass until a wait in it returns false.
struct Waiter : WorkThread {
    using WorkThread::wait;
    Event own;
    std::atomic<long> tid{0};
    std::atomic<int> taken{0};
    std::function<bool(Waiter&)> body = [](Waiter& self) { return self.wait(self.own); };
    ~Waiter() override { stop(); }
    void starting() override { tid = currentTid(); }
    void running() override {
        while (body(*this))
            ++taken;
    }
};

}  // namespace

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

// A hook that throws once: the failure stays on the work thread. After
// running() threw, the loop has ended for good, yet the state stays RUNNING
// until stop().
class WorkThreadFaultTest : public ::testing::TestWithParam<Hook> {};

TEST_P(WorkThreadFaultTest, AThrowingHookLeavesTheThreadStoppableAndRestartable) {
    const Hook hook = GetParam();
    Probe probe;
    probe.hooks[hook] = [hook](Probe& self) { self.calls[hook] == 1 ? throw 42 : void(); };
    expectUsableAfterFault(probe, hook == kRunning, [&] { return probe.calls[kRunning].load(); });
    EXPECT_TRUE(probe.calls[kStarting] == 2 && probe.calls[kStopping] == 2);
}

std::string nameOf(const ::testing::TestParamInfo<Hook>& hook) {
    const char* const names[] = {"Starting", "Running", "Stopping"};
    return names[hook.param];
}

INSTANTIATE_TEST_SUITE_P(Hooks, WorkThreadFaultTest,
                         ::testing::Values(kStarting, kRunning, kStopping), nameOf);

TEST(WorkThreadWaitTest, AnAutoResetSignalReleasesOneWaitAndIdleWaitersNeverWake) {
    Event shared;  // auto reset
    Waiter waiters[2];
    for (Waiter& w : waiters) {
        w.body = [&shared](Waiter& self) { return self.wait(shared); };
        ASSERT_TRUE(w.start());
    }
    const auto taken = [&] { return waiters[0].taken + waiters[1].taken; };
    expectIdle({waiters[0].tid, waiters[1].tid});
    for (int n = 1; n <= 3; ++n) {
        shared.signal();
        ASSERT_TRUE(waitFor([&] { return taken() == n; }));
        EXPECT_FALSE(waitFor([&] { return taken() > n; }, 0.05));  // taken once only
    }
    // A stop wakes its own thread at once and leaves the event to the other.
    const double stopBegan = Timestamp().getTime();
    waiters[0].stop();
    EXPECT_LT(Timestamp().getTime() - stopBegan, kBlockedAfter);
    const int before = waiters[1].taken;
    shared.signal();
    EXPECT_TRUE(waitFor([&] { return waiters[1].taken == before + 1; }));
    EXPECT_EQ(taken(), 4);
}

TEST(WorkThreadWaitTest, AnEventSignalledWithAStopWinsAndTheStopStaysForTheNextWait) {
    Waiter w;
    Event manual(true);
    std::vector<int> results;  // of the waits after the event and the stop came
    w.body = [&](Waiter& self) {
        if (self.taken == 0)  // blocks until the event and the stop have both come
            return self.wait(self.own);
        results = {self.wait(self.own), self.wait(manual), self.wait(0.0)};
        return false;
    };
    ASSERT_TRUE(w.start());
    expectIdle({w.tid});
    // Signalled just before the stop: whenever the waiter wakes, it sees the
    // event first, or both.
    w.own.signal();
    manual.signal();
    w.stop();
    EXPECT_EQ(w.taken, 1);
    // The stop was still pending for the first of them, and consumed there.
    EXPECT_EQ(results, (std::vector<int>{false, true, true}));
}

// Durations that are not numbers, infinite, or too large for a deadline wait
// as long as they say, within the waits' reach, and never spin.
TEST(WorkThreadWaitTest, OddDurationsKeepTheirMeaningWithoutSpinning) {
    constexpr double kMax = std::numeric_limits<double>::max();
    const double kInf = std::numeric_limits<double>::infinity(), kNaN = std::nan("");
    Waiter w;
    std::vector<int> results;
    std::atomic<int> rounds{0};
    w.body = [&](Waiter& self) {
        for (double seconds : {0.0, -0.0, kNaN, -kInf, -kMax, -1e300, 1e-300, -1e-9, 4e-7})
            results.push_back(self.wait(seconds));       // at once, no stop pending
        return self.wait(rounds++ == 0 ? 1e300 : kMax);  // until the stop
    };
    for (int round = 0; round < 2; ++round) {
        ASSERT_TRUE(w.start());
        ASSERT_TRUE(waitFor([&] { return rounds == round + 1; }));
        expectIdle({w.tid});
        w.stop();
    }
    EXPECT_EQ(results, std::vector<int>(18, true));
    EXPECT_EQ(w.taken, 0);
}

namespace {

// Holds the signalling thread with the wake of a waiting work thread taken
// but not yet given, until the test lets it go.
std::atomic<std::thread::id> holder;
std::atomic<int> wakePhase{0};  // 1: a taken wake is held; 2: released

void holdTakenWake(detail::SignalPoint point, std::size_t wakes) {
    if (point == detail::SignalPoint::kWakesTaken && wakes > 0 &&
        std::this_thread::get_id() == holder.load()) {
        wakePhase = 1;
        waitFor([] { return wakePhase == 2; });
    }
}

}  // namespace

// A signal takes the wakes of waiting work threads under the event's lock and
// gives them after it: the thread may stop and its owner destroy it in
// between. The late wake must reach nothing (AddressSanitizer sees any use
// of the gone thread's sleeper).
TEST(WorkThreadWaitTest, AWakeGivenAfterItsThreadIsDestroyedReachesNothing) {
    Event event;  // auto reset
    auto* waiter = new Waiter;
    waiter->body = [&event](Waiter& self) { return self.wait(event); };
    ASSERT_TRUE(waiter->start());
    detail::setSignalHookForTesting(holdTakenWake);
    std::thread signaller([&] {
        holder = std::this_thread::get_id();
        // A signal that comes before the wait sleeps is taken without a wake.
        while (wakePhase == 0) {
            event.signal();
            std::this_thread::yield();
        }
    });
    ASSERT_TRUE(waitFor([] { return wakePhase == 1; }));
    delete waiter;  // stops it: the event (signalled) wins one wait, the stop the next
    wakePhase = 2;
    signaller.join();
    detail::setSignalHookForTesting(nullptr);
}
