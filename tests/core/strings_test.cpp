#include <gtest/gtest.h>

#include <strings.h>
#include <limits>
#include <locale>
#include <sstream>
#include <string>

#include "kestrel/strings.h"

// The operators take std::string, so callers bring them into scope.
using namespace kestrel;

namespace {

std::string classicText(double v) {
    std::ostringstream out;
    out.imbue(std::locale::classic());
    out.precision(16);
    out << v;
    return out.str();
}

int sign(int v) {
    return (v > 0) - (v < 0);
}

TEST(StringsTest, AppendsNumberAndTruthTextsAsAClassicStream) {
    std::string s = "n=";
    s += short{-5};
    s += ' ';  // still std::string's own operators
    s += 0;
    s += 'c';
    s += -1234567890123L;
    EXPECT_EQ(s, "n=-5 0c-1234567890123");
    EXPECT_EQ(std::string("x") + true + "," + false, "xtrue,false");

    const std::pair<double, const char*> cases[] = {
        {0.1, "0.1"},    {1.0 / 3.0, "0.3333333333333333"},
        {100.0, "100"},  {1e20, "1e+20"},
        {1e-7, "1e-07"}, {2.5, "2.5"}};
    for (const auto& [value, text] : cases) {
        EXPECT_EQ(std::string() + value, text);
    }
    const double limits[] = {-0.0,
                             1e15,
                             1e16,
                             123456789012345678.0,
                             1e-4,
                             1e-5,
                             5e-324,
                             -std::numeric_limits<double>::max(),
                             std::numeric_limits<double>::infinity(),
                             std::numeric_limits<double>::quiet_NaN()};
    for (const double value : limits) {
        EXPECT_EQ(std::string() + value, classicText(value));
    }
}

TEST(StringsTest, CaselessComparisonIsStrcasecmp) {
    EXPECT_EQ(caselessCompare("abc", "ABC"), 0);
    EXPECT_LT(caselessCompare("a", "B"), 0);
    EXPECT_LT(caselessCompare("_", "A"), 0);
    EXPECT_LT(caselessCompare("ab", std::string("ABC")), 0);
    EXPECT_EQ(caselessCompare(std::string("ab\0x", 4), std::string("AB\0y", 4)), 0);
    EXPECT_FALSE(caselessIsLessThan("abc", "ABC"));
    EXPECT_FALSE(caselessIsLessThan("ABC", "abc"));
    EXPECT_TRUE(caselessIsLessThan("A_", "aa"));
    // Every pair of bytes, against the C runtime.
    for (int a = 1; a < 256; ++a) {
        for (int b = 1; b < 256; ++b) {
            const std::string sa(1, static_cast<char>(a));
            const std::string sb(1, static_cast<char>(b));
            ASSERT_EQ(sign(caselessCompare(sa, sb)), sign(strcasecmp(sa.c_str(), sb.c_str())))
                << a << " " << b;
        }
    }
}

TEST(StringsTest, CaseConversionAndTruncation) {
    EXPECT_EQ(toUpper("a1-b_c! \xe9"), "A1-B_C! \xe9");
    EXPECT_EQ(toLower("MiXeD 42."), "mixed 42.");
    std::string s = "hello";
    EXPECT_FALSE(truncate(s, 5));
    EXPECT_FALSE(truncate(s, 10));
    EXPECT_EQ(s, "hello");
    EXPECT_TRUE(truncate(s, 3));
    EXPECT_EQ(s, "hel");
    EXPECT_TRUE(truncate(s, 0));
    EXPECT_EQ(s, "");
}

}  // namespace
