#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "kestrel/threads.h"
#include "support/timing.h"

using kestrel::Event;
using kestrel_test::waitFor;

// A manual-reset signal releases every wait until reset(). (The waits of the
// work threads take auto-reset signals once.)
TEST(EventTest, ManualResetSignalsStayUntilReset) {
    Event event(true, true);
    event.wait();
    event.wait();
    event.reset();
    std::atomic<bool> passed{false};
    std::thread waiter([&] {
        event.wait();
        passed = true;
    });
    EXPECT_FALSE(waitFor([&] { return passed.load(); }, 0.1));
    event.signal();
    waiter.join();
}
