#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "kestrel/lock.h"
#include "support/timing.h"

namespace {

using kestrel::KSCriticalSection;
using kestrel_test::waitFor;

TEST(KSCriticalSectionTest, OtherThreadEntersOnlyAfterTheLastLeave) {
    KSCriticalSection lock;
    lock.enter();
    lock.enter();
    lock.enter();
    lock.leave();
    lock.leave();

    std::atomic<bool> trying{false};
    std::atomic<bool> entered{false};
    std::thread other([&] {
        trying = true;
        lock.enter();
        entered = true;
        lock.leave();
    });
    ASSERT_TRUE(waitFor([&] { return trying.load(); }));
    // Still held once: however long the other thread tries, it cannot enter.
    EXPECT_FALSE(waitFor([&] { return entered.load(); }, 0.05));
    lock.leave();
    EXPECT_TRUE(waitFor([&] { return entered.load(); }));
    other.join();

    // Free again: this thread enters and leaves without blocking.
    lock.enter();
    lock.leave();
}

TEST(KSCriticalSectionTest, NestedSectionsExcludeOtherThreads) {
    KSCriticalSection lock;
    long counter = 0;  // guarded by lock
    constexpr int kThreads = 4;
    constexpr int kRounds = 5000;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            for (int r = 0; r < kRounds; ++r) {
                lock.enter();
                lock.enter();
                const long seen = counter;
                counter = seen + 1;
                lock.leave();
                lock.leave();
            }
        });
    }
    for (std::thread& t : threads) {
        t.join();
    }
    EXPECT_EQ(counter, kThreads * kRounds);
}

}  // namespace
