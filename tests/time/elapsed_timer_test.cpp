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
    // A restart measures from its own call: never more than a timer started
    // before it, however long this thread is held up in between.
    const ElapsedTimer before;
    timer.start();
    const double sinceRestart = timer.getElapsedTime();
    EXPECT_LE(sinceRestart, before.getElapsedTime());
}
