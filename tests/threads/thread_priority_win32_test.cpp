// Windows: the priority of a started thread is its own priority level within
// the process's priority class.
#include <gtest/gtest.h>

#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

#include <atomic>

#include "kestrel/threads.h"
#include "support/timing.h"

namespace {

using kestrel::Thread;

// Reads its priority once start() has returned, when the priority is set.
int priorityAfterStart(Thread::ThreadPriority priority) {
    struct Probe : Thread {
        using Thread::Thread;
        std::atomic<bool> started{false};
        std::atomic<int> level{THREAD_PRIORITY_ERROR_RETURN};
        bool run() override {
            kestrel_test::waitFor([&] { return started.load(); });
            level = ::GetThreadPriority(::GetCurrentThread());
            return true;
        }
    } probe(priority);
    EXPECT_TRUE(probe.start());
    probe.started = true;
    probe.join();
    return probe.level;
}

TEST(ThreadPriorityTest, SetsHighestOrLowestOnTheStartedThread) {
    const int created = ::GetThreadPriority(::GetCurrentThread());  // new threads start normal
    EXPECT_EQ(created, THREAD_PRIORITY_NORMAL);
    EXPECT_EQ(priorityAfterStart(Thread::LOW_PRIORITY), THREAD_PRIORITY_LOWEST);
    EXPECT_EQ(priorityAfterStart(Thread::HIGH_PRIORITY), THREAD_PRIORITY_HIGHEST);
    EXPECT_EQ(priorityAfterStart(Thread::NORMAL_PRIORITY), created);
    EXPECT_EQ(priorityAfterStart(static_cast<Thread::ThreadPriority>(7)), created);
}

}  // namespace
