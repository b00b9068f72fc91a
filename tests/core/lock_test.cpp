#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "kestrel/lock.h"
#include "support/timing.h"

namespace {

using kestrel_test::waitFor;

TEST(KSCriticalSectionTest, OtherThreadEntersOnlyAfterTheLastLeave) {
    kestrel::KSCriticalSection lock;
    for (int i = 0; i < 3; ++i) {
        lock.enter();
    }
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
    lock.enter();  // free again
    lock.leave();
}

}  // namespace
