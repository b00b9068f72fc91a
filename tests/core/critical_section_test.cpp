#include <gtest/gtest.h>

#include <chrono>
#include <future>

#include "kestrel/lock.h"

TEST(KSCriticalSectionTest, OtherThreadEntersOnlyAfterTheLastLeave) {
    kestrel::KSCriticalSection lock;
    lock.enter();
    lock.enter();
    lock.leave();  // still held once
    auto other = std::async(std::launch::async, [&] {
        lock.enter();
        lock.leave();
    });
    EXPECT_EQ(other.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    lock.leave();
    EXPECT_EQ(other.wait_for(std::chrono::seconds(5)), std::future_status::ready);
}
