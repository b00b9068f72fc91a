// Linux: the priority of a started thread is its own nice value.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "kestrel/threads.h"
#include "support/timing.h"

namespace {

using kestrel::Thread;

int ownNice() {
    return getpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)));
}

// Reads its nice value once start() has returned, when the priority is set.
int niceAfterStart(Thread::ThreadPriority priority) {
    struct Probe : Thread {
        using Thread::Thread;
        std::atomic<bool> started{false};
        std::atomic<int> nice{100};
        bool run() override {
            kestrel_test::waitFor([&] { return started.load(); });
            nice = ownNice();
            return true;
        }
    } probe(priority);
    EXPECT_TRUE(probe.start());
    probe.started = true;
    probe.join();
    return probe.nice;
}

TEST(ThreadPriorityTest, ShiftsTheNiceValueOfTheStartedThreadByTwo) {
    const int created = ownNice();  // new threads inherit it
    bool mayRaise = false;
    std::thread([&] { mayRaise = setpriority(PRIO_PROCESS, 0, created - 2) == 0; }).join();
    EXPECT_EQ(niceAfterStart(Thread::LOW_PRIORITY), std::min(created + 2, 19));
    EXPECT_EQ(niceAfterStart(Thread::HIGH_PRIORITY), mayRaise ? created - 2 : created);
    EXPECT_EQ(niceAfterStart(Thread::NORMAL_PRIORITY), created);
    EXPECT_EQ(niceAfterStart(static_cast<Thread::ThreadPriority>(7)), created);
}

}  // namespace
