#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "kestrel/threads.h"
#include "support/timing.h"

using kestrel::Event;
using kestrel_test::waitFor;

// An auto-reset signal releases one wait and is taken by it; a manual-reset
// one releases every wait until reset().
TEST(EventTest, AutoResetSignalsAreTakenOnceAndManualResetOnesStayUntilReset) {
    Event automatic(false, true), manual(true, true);
    automatic.wait();
    manual.wait();
    manual.wait();
    manual.reset();
    std::atomic<int> passed{0};
    std::thread waiter([&] {
        automatic.wait();
        ++passed;
        manual.wait();
        ++passed;
    });
    EXPECT_FALSE(waitFor([&] { return passed > 0; }, 0.1));
    automatic.signal();
    EXPECT_TRUE(waitFor([&] { return passed == 1; }));
    EXPECT_FALSE(waitFor([&] { return passed > 1; }, 0.1));
    manual.signal();
    waiter.join();
}
