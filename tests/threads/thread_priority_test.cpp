// Linux: the priority of a started thread is its own nice value; a timer
// thread's timed waits have no slack.
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/resource.h>

#include <atomic>
#include <thread>

#include "kestrel/threads.h"
#include "support/timing.h"

using kestrel::Thread;
using kestrel_test::waitFor;

TEST(ThreadTest, StartsAtItsPriorityWhichShiftsTheNiceValueByTwo) {
    // On Linux each thread has a nice value of its own, and new ones inherit it.
    const int created = getpriority(PRIO_PROCESS, 0);
    bool mayRaise = false;
    std::thread([&] { mayRaise = setpriority(PRIO_PROCESS, 0, created - 2) == 0; }).join();
    const int low = created < 17 ? created + 2 : 19, high = mayRaise ? created - 2 : created;
    // Pairs of priority and nice value: low, high, normal, and any other value as normal.
    const int expected[][2] = {{0, low}, {2, high}, {1, created}, {7, created}};
    for (const auto& [priority, nice] : expected) {
        struct Probe : Thread {  // reads its nice value once start() has returned
            using Thread::Thread;
            std::atomic<int> started{0}, nice{100};
            bool run() override {
                waitFor([&] { return started == 1; });
                nice = getpriority(PRIO_PROCESS, 0);
                return true;
            }
        } probe(static_cast<Thread::ThreadPriority>(priority));
        EXPECT_TRUE(probe.start());
        probe.started = 1;
        probe.join();
        EXPECT_EQ(probe.nice, nice) << priority;
    }
}

TEST(TimerThreadTest, RunsWithoutTimerSlack) {
    struct SlackProbe : kestrel::TimerThread {
        SlackProbe() : TimerThread(FIXED_RATE, 0.001) {}
        ~SlackProbe() override { stop(); }
        std::atomic<long> slack{-1};
        void executing() override { slack = prctl(PR_GET_TIMERSLACK, 0, 0, 0, 0); }
    } timer;
    ASSERT_TRUE(timer.start());
    EXPECT_TRUE(waitFor([&] { return timer.slack != -1; }));
    EXPECT_EQ(timer.slack, 1);
}
