#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "kestrel/time.h"
#include "support/timing.h"

namespace {

using kestrel::Timestamp;

// Sets TZ for its lifetime.
class ScopedTimeZone {
  public:
    explicit ScopedTimeZone(const char* tz) {
        const char* old = std::getenv("TZ");
        _hadOld = old != nullptr;
        _old = _hadOld ? old : "";
        setenv("TZ", tz, 1);
        tzset();
    }
    ~ScopedTimeZone() {
        _hadOld ? setenv("TZ", _old.c_str(), 1) : unsetenv("TZ");
        tzset();
    }

  private:
    bool _hadOld;
    std::string _old;
};

TEST(TimestampTest, ComparesAndComputesInSeconds) {
    const Timestamp five(5.0), two(2.0), nan(std::nan(""));
    EXPECT_EQ((five - 2.0).getTime(), 3.0);
    EXPECT_EQ(five - two, 3.0);
    EXPECT_EQ((two + 1.5).getTime(), 3.5);
    Timestamp t(1.0);
    EXPECT_EQ((t += 1.5).getTime(), 2.5);
    EXPECT_EQ((t -= 0.5).getTime(), 2.0);

    EXPECT_TRUE(t == two && two != five && two < five && two <= five && five > two && five >= two);
    EXPECT_FALSE(nan == nan || nan < five || nan <= five || nan > five || nan >= five ||
                 five < nan || five >= nan);
    EXPECT_TRUE(nan != nan);

    EXPECT_FALSE(two.isEquivalent(two, 0.0));
    EXPECT_TRUE(Timestamp(1.0).isEquivalent(1.0005, 0.001));
    EXPECT_FALSE(Timestamp(1.0).isEquivalent(1.002, 0.001));
}

TEST(TimestampTest, TimeVectorIsLocalCalendarTime) {
    std::vector<double> v{42.0};
    {
        ScopedTimeZone utc("UTC");
        kestrel::fcns::time::createTimeVector(1.5, v);
        EXPECT_EQ(v, (std::vector<double>{1970, 1, 1, 0, 0, 1.5}));
        Timestamp(1772368199.25).getTimeVector(v);  // 2026-03-01 12:29:59.25 UTC
        EXPECT_EQ(v, (std::vector<double>{2026, 3, 1, 12, 29, 59.25}));
    }
    {
        ScopedTimeZone east("XYZ-2");  // two hours ahead of UTC
        Timestamp(1.5).getTimeVector(v);
        EXPECT_EQ(v, (std::vector<double>{1970, 1, 1, 2, 0, 1.5}));
    }
    for (const double bad : {0.0, -1.0, std::nan(""), 1e300}) {
        v.assign(3, 1.0);
        Timestamp(bad).getTimeVector(v);
        EXPECT_TRUE(v.empty()) << bad;
    }
}

TEST(TimestampTest, CurrentTimeFollowsTheSystemClock) {
    EXPECT_GT(Timestamp::getSystemClockGranularity(), 0.0);
    const Timestamp a;
    const Timestamp b;
    EXPECT_LE(a, b);
    const double system =
        std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    EXPECT_NEAR(kestrel::fcns::time::getCurrentTimestamp(), system, 1.0);
    const double step = Timestamp::getGranularity();
    EXPECT_GT(step, 0.0);
    EXPECT_LT(step, kestrel_test::kSchedulingAllowance);
}

}  // namespace
