#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <vector>

#include "kestrel/time.h"
#include "support/os.h"
#include "support/timing.h"

namespace {

using kestrel::Timestamp;

TEST(TimestampTest, ComparesAndComputesInSeconds) {
    const Timestamp five(5.0), two(2.0), nan(std::nan(""));
    Timestamp t(1.0);
    EXPECT_EQ((t += 1.5).getTime(), 2.5);
    EXPECT_EQ((t -= 0.5).getTime(), 2.0);
    EXPECT_EQ((five - 2.0).getTime() + (two + 1.5).getTime() + (five - two), 9.5);
    EXPECT_TRUE(t == two && two != five && two < five && two <= five && five > two && five >= two);
    EXPECT_FALSE(nan == nan || nan < five || nan <= five || nan > five || five >= nan);
    EXPECT_TRUE(nan != nan);
    EXPECT_FALSE(two.isEquivalent(two, 0.0) || two.isEquivalent(2.002, 0.001));
    EXPECT_TRUE(two.isEquivalent(2.0005, 0.001));
}

TEST(TimestampTest, TimeVectorIsLocalCalendarTime) {
    std::vector<double> v;
    kestrel_test::setEnv("TZ", "UTC");
    tzset();
    kestrel::fcns::time::createTimeVector(1.5, v);
    EXPECT_EQ(v, (std::vector<double>{1970, 1, 1, 0, 0, 1.5}));
    Timestamp(1772368199.25).getTimeVector(v);  // 2026-03-01 12:29:59.25 UTC
    EXPECT_EQ(v, (std::vector<double>{2026, 3, 1, 12, 29, 59.25}));
    kestrel_test::setEnv("TZ", "XYZ-2");  // two hours ahead of UTC
    Timestamp(1.5).getTimeVector(v);
    EXPECT_EQ(v, (std::vector<double>{1970, 1, 1, 2, 0, 1.5}));
    kestrel_test::unsetEnv("TZ");
    for (const double bad : {0.0, -1.0, std::nan(""), 1e300}) {
        Timestamp(bad).getTimeVector(v);
        EXPECT_TRUE(v.empty()) << bad;
    }
}

TEST(TimestampTest, CurrentTimeFollowsTheSystemClock) {
    EXPECT_GT(Timestamp::getSystemClockGranularity(), 0.0);
    const Timestamp a, b;
    EXPECT_LE(a, b);
    const auto system = std::chrono::system_clock::now().time_since_epoch();
    EXPECT_NEAR(kestrel::fcns::time::getCurrentTimestamp(),
                std::chrono::duration<double>(system).count(), 1.0);
    const double step = Timestamp::getGranularity();
    EXPECT_GT(step, 0.0);
    EXPECT_LT(step, kestrel_test::kSchedulingAllowance);
}

}  // namespace
