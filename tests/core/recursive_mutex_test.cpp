// The events subsystem's own recursive mutex: re-entry by its owner, and
// exclusion of every other thread, also of those that had to sleep on it.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "core/recursive_mutex.h"
#include "support/other_thread.h"

// Re-entry and locks taken on one thread for another are what this test is
// about, and beyond Clang's lock analysis.
#if defined(__clang__)
#pragma clang diagnostic ignored "-Wthread-safety-analysis"
#endif

namespace {

using kestrel::detail::RecursiveMutex;

TEST(RecursiveMutexTest, OwnerReentersOthersWaitForTheLastUnlockAndSleepersAreWoken) {
    RecursiveMutex mutex;
    mutex.lock();
    mutex.lock();
    EXPECT_TRUE(mutex.try_lock());
    mutex.unlock();
    mutex.unlock();
    kestrel_test::runOnAnotherThread([&] { EXPECT_FALSE(mutex.try_lock()); });
    mutex.unlock();
    kestrel_test::runOnAnotherThread([&] {
        ASSERT_TRUE(mutex.try_lock());
        mutex.unlock();
    });

    // Contenders, some of them sleeping, some nesting: every increment of a
    // plain counter is kept, and every sleeper is woken.
    constexpr int kThreads = 4, kRounds = 20000;
    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kRounds; ++i) {
                mutex.lock();
                if ((i + t) % 64 == 0) {  // nested, and held long enough to make others sleep
                    mutex.lock();
                    std::this_thread::yield();
                    mutex.unlock();
                }
                ++counter;  // still held
                mutex.unlock();
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(counter, static_cast<long>(kThreads) * kRounds);
}

}  // namespace
