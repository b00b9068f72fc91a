#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "kestrel/threads.h"
#include "support/timing.h"

using kestrel::Event;
using kestrel_test::waitFor;

// An auto-reset signal releases one wait and is consumed by it; a
// manual-reset one releases every wait until reset().
TEST(EventTest, AutoResetSignalsAreTakenOnceAndManualResetOnesStay) {
    for (const bool manual : {false, true}) {
        SCOPED_TRACE(manual);
        Event event(manual, true);
        event.wait();
        std::atomic<int> passed{0};
        std::thread waiter([&] {
            for (int i = 0; i < 2; ++i) {
                event.wait();
                ++passed;
            }
        });
        // A manual-reset event lets both waits pass; an auto-reset one does not:
        // its signal was taken (by the wait above, or by the waiter's first wait).
        const auto bothPass = [&] {
            return waitFor([&] { return passed == 2; }, manual ? 5.0 : 0.1);
        };
        EXPECT_EQ(bothPass(), manual);
        event.reset();
        event.signal();
        EXPECT_TRUE(waitFor([&] { return passed >= 1; }));
        EXPECT_EQ(bothPass(), manual);
        event.signal();
        waiter.join();
    }
}
