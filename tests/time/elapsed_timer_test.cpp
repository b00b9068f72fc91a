#include <gtest/gtest.h>

#include "kestrel/time.h"
#include "support/timing.h"

namespace {

class ProbeTimer : public kestrel::ElapsedTimer {
  public:
    using kestrel::ElapsedTimer::ElapsedTimer;
    using kestrel::ElapsedTimer::isStarted;
};

TEST(ElapsedTimerTest, NeverStartedReportsZeroUntilStarted) {
    ProbeTimer timer(false);
    EXPECT_FALSE(timer.isStarted());
    EXPECT_EQ(timer.getElapsedTime(), 0.0);
    timer.start();
    EXPECT_TRUE(timer.isStarted());
    EXPECT_GE(timer.getElapsedTime(), 0.0);
}

TEST(ElapsedTimerTest, RunsFromConstructionAndRestarts) {
    ProbeTimer timer;
    EXPECT_TRUE(timer.isStarted());
    const double first = timer.getElapsedTime();
    EXPECT_GE(first, 0.0);
    ASSERT_TRUE(kestrel_test::waitFor([&] { return timer.getElapsedTime() > 0.02; }));
    timer.start();
    EXPECT_LT(timer.getElapsedTime(), 0.02 + kestrel_test::kSchedulingAllowance);
    EXPECT_LT(timer.getElapsedTime(), timer.getElapsedTime() + 1.0);
}

}  // namespace
