// The waits block: a thread waiting for an event, for its stop, or for a far
// timer does not wake until one of them is due, takes each auto-reset signal
// once, and gives the event precedence over a stop that arrives with it.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "kestrel/events.h"
#include "kestrel/threads.h"
#include "support/timing.h"

#if defined(__linux__)
#include <dirent.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

#include <fstream>
#endif

using namespace kestrel;
using namespace kestrel_test;

namespace {

#if defined(__linux__)
long currentTid() {
    return static_cast<long>(::syscall(SYS_gettid));
}

// How often the thread tid of this process has gone to sleep so far.
long sleepsOf(long tid) {
    std::ifstream status("/proc/self/task/" + std::to_string(tid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("voluntary_ctxt_switches:", 0) == 0) {
            return std::stol(line.substr(24));
        }
    }
    return -1;
}

// The threads of this process.
std::vector<long> tasks() {
    std::vector<long> tids;
    if (DIR* dir = ::opendir("/proc/self/task")) {
        while (const dirent* entry = ::readdir(dir)) {
            if (entry->d_name[0] != '.')
                tids.push_back(std::stol(entry->d_name));
        }
        ::closedir(dir);
    }
    return tids;
}

// The threads of this process that are not in before.
std::vector<long> newTasks(const std::vector<long>& before) {
    std::vector<long> tids;
    for (long tid : tasks()) {
        if (std::find(before.begin(), before.end(), tid) == before.end())
            tids.push_back(tid);
    }
    return tids;
}

// The threads tids wake at most once each (a late wake from before the
// measurement) in 300 ms of idleness.
void expectIdle(const std::vector<long>& tids) {
    std::vector<long> before;
    for (long tid : tids)
        before.push_back(sleepsOf(tid));
    Thread::sleep(0.3);
    for (std::size_t i = 0; i < tids.size(); ++i)
        EXPECT_LE(sleepsOf(tids[i]) - before[i], 1) << "thread " << i << " keeps waking";
}
#else
long currentTid() {
    return 0;
}
std::vector<long> tasks() {
    return {};
}
std::vector<long> newTasks(const std::vector<long>&) {
    return {0};
}
void expectIdle(const std::vector<long>&) {}
#endif

// Runs body as its pass until a wait in it returns false, then records the
// results of two more waits (0 s, and on its own event).
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

TEST(WaitTest, AnAutoResetSignalReleasesOneWaitAndIdleWaitersNeverWake) {
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
    EXPECT_LT(Timestamp().getTime() - stopBegan, kSchedulingAllowance);
    const int before = waiters[1].taken;
    shared.signal();
    EXPECT_TRUE(waitFor([&] { return waiters[1].taken == before + 1; }));
    EXPECT_EQ(taken(), 4);
}

TEST(WaitTest, AnEventSignalledWithAStopWinsAndTheStopStaysForTheNextWait) {
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
TEST(WaitTest, OddDurationsAndPeriodsKeepTheirMeaningWithoutSpinning) {
    constexpr double kInf = std::numeric_limits<double>::infinity();
    constexpr double kMax = std::numeric_limits<double>::max();
    const double kNaN = std::nan("");
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

    struct Timer : TimerThread {
        using TimerThread::TimerThread;
        std::atomic<int> executions{0};
        ~Timer() override { stop(); }
        void executing() override { ++executions; }
    };
    for (double period : {0.0, -1.0, kNaN, kInf, -kInf})
        EXPECT_EQ(Timer(TimerThread::FIXED_RATE, period).getPeriod(), 1.0) << period;
    for (double period : {1e300, kMax}) {
        Timer timer(TimerThread::FIXED_DELAY, 0.001);
        ASSERT_TRUE(timer.start());
        ASSERT_TRUE(waitFor([&] { return timer.executions > 0; }));
        const std::vector<long> before = tasks();
        timer.setPeriod(period);  // restarts: the next execution is ages away
        const int executions = timer.getExecutions();
        const std::vector<long> timerThread = newTasks(before);
        ASSERT_EQ(timerThread.size(), 1u);
        expectIdle(timerThread);
        EXPECT_EQ(timer.getExecutions(), executions);
        const double stopBegan = Timestamp().getTime();
        timer.stop();
        EXPECT_LT(Timestamp().getTime() - stopBegan, kSchedulingAllowance);
    }
}

TEST(WaitTest, IdleEventThreadsNeverWake) {
    EventThread threads[4];
    std::vector<long> tids;
    for (EventThread& thread : threads) {
        ASSERT_TRUE(thread.start());
        struct Tid : IEvent {
            explicit Tid(std::atomic<long>& t) : IEvent(nullptr), tid(t) {}
            bool execute() override {
                tid = currentTid();
                return true;
            }
            std::atomic<long>& tid;
        };
        std::atomic<long> tid{-1};
        (new Tid(tid))->postEvent(thread);
        ASSERT_TRUE(waitFor([&] { return tid != -1; }));
        tids.push_back(tid);
    }
    expectIdle(tids);
}
