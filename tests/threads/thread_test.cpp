#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <stdexcept>
#include <thread>
#include <vector>

#include "kestrel/threads.h"
#include "support/timing.h"

namespace {

using kestrel::Event;
using kestrel::Thread;
using kestrel_test::kSchedulingAllowance;
using kestrel_test::waitFor;

double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

class BlockingThread : public Thread {
  public:
    using Thread::getID;
    std::atomic<int> runs{0};
    std::atomic<bool> release{false};
    std::atomic<bool> finished{false};
    ID seenID;  // written by run() before runs is incremented

  private:
    bool run() override {
        seenID = Thread::getCurrentID();
        ++runs;
        while (!release) {
            Thread::sleep(0.0005);
        }
        finished = true;
        throw std::runtime_error("ends the thread");
    }
};

TEST(ThreadTest, StartRunsOnceUntilJoinAndStartsAgainAfterIt) {
    BlockingThread thread;
    thread.join();  // never started: returns at once
    EXPECT_EQ(thread.getID(), Thread::ID());
    ASSERT_TRUE(thread.start());
    EXPECT_TRUE(thread.start());
    ASSERT_TRUE(waitFor([&] { return thread.runs == 1; }));
    EXPECT_EQ(thread.getID(), thread.seenID);
    EXPECT_NE(thread.getID(), Thread::getCurrentID());

    thread.release = true;  // run() raises; the exception stays on its thread
    ASSERT_TRUE(waitFor([&] { return thread.finished.load(); }));
    EXPECT_TRUE(thread.isActive());
    thread.join();
    EXPECT_FALSE(thread.isActive());
    EXPECT_EQ(thread.getID(), Thread::ID());
    thread.join();

    thread.release = false;
    ASSERT_TRUE(thread.start());
    ASSERT_TRUE(waitFor([&] { return thread.runs == 2; }));
    EXPECT_EQ(thread.getID(), thread.seenID);
    thread.release = true;
    thread.join();
    EXPECT_EQ(thread.runs, 2);
}

TEST(ThreadTest, SleepRoundsToMicrosecondsAndSkipsNonPositiveDurations) {
    auto start = std::chrono::steady_clock::now();
    Thread::sleep(-1.0);
    Thread::sleep(0.0);
    Thread::sleep(4e-7);
    Thread::sleep(std::nan(""));
    EXPECT_LT(secondsSince(start), kSchedulingAllowance);
    start = std::chrono::steady_clock::now();
    Thread::sleep(5e-7);
    EXPECT_GE(secondsSince(start), 1e-6);
    start = std::chrono::steady_clock::now();
    Thread::sleep(0.05);
    EXPECT_GE(secondsSince(start), 0.05);
    EXPECT_GE(Thread::getNumCores(), 1u);
    EXPECT_TRUE(std::isinf(Thread::INFINITE_SECONDS) && Thread::INFINITE_SECONDS > 0);
}

TEST(EventTest, AutoResetReleasesOneWaiterPerSignal) {
    Event preset(false, true);
    preset.wait();  // returns at once and clears the event
    preset.signal();
    preset.signal();  // not counted
    preset.wait();

    Event event;
    std::atomic<int> released{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 2; ++i) {
        waiters.emplace_back([&] {
            event.wait();
            ++released;
        });
    }
    Thread::sleep(0.02);  // lets the waiters block
    event.signal();
    ASSERT_TRUE(waitFor([&] { return released == 1; }));
    Thread::sleep(0.05);
    EXPECT_EQ(released, 1);
    event.signal();
    ASSERT_TRUE(waitFor([&] { return released == 2; }));
    for (auto& waiter : waiters) {
        waiter.join();
    }
}

TEST(EventTest, ManualResetReleasesAllWaitersAndStaysSetUntilReset) {
    Event event(true, false);
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
    for (auto& waiter : waiters) {
        waiter.join();
    }
    EXPECT_EQ(released, 3);
    event.wait();  // still set
    event.reset();
    event.reset();
    std::thread late([&] {
        event.wait();
        ++released;
    });
    Thread::sleep(0.05);
    EXPECT_EQ(released, 3);
    event.signal();
    late.join();
    EXPECT_EQ(released, 4);
}

}  // namespace
