#include <gtest/gtest.h>

#include "kestrel/time.h"
#include "support/timing.h"

using kestrel::ElapsedTimer;
using kestrel_test::kSchedulingAllowance;

TEST(ElapsedTimerTest, MeasuresTheTimeSinceItsStartAndNothingUnstarted) {
    ElapsedTimer idle(false), timer;
    ASSERT_TRUE(
        kestrel_test::waitFor([&] { return timer.getElapsedTime() > kSchedulingAllowance; }));
    EXPECT_EQ(idle.getElapsedTime(), 0.0);
    timer.start();
    EXPECT_LT(timer.getElapsedTime(), kSchedulingAllowance);
}
