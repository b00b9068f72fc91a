#include <gtest/gtest.h>

#include <strings.h>
#include <cmath>
#include <limits>
#include <locale>
#include <sstream>
#include <string>

#include "kestrel/strings.h"

// The operators take std::string, so callers bring them into scope.
using namespace kestrel;

namespace {

TEST(StringsTest, AppendsNumberAndTruthTextsAsAClassicStream) {
    std::string s = "n=";
    s += short{-5};
    s += ' ';  // std::string's own operators still apply
    s += 0;
    s += -1234567890L;  // fits a long on every system
    EXPECT_EQ(s + true + false, "n=-5 0-1234567890truefalse");
    EXPECT_EQ(
        std::string() + 0.1 + " " + 1.0 / 3.0 + " " + 100.0 + " " + 1e20 + " " + 1e-7 + " " + 2.5,
        "0.1 0.3333333333333333 100 1e+20 1e-07 2.5");
    for (const double v : {-0.0, 1e16, 1e-5, 5e-324, std::numeric_limits<double>::max(),
                           -std::numeric_limits<double>::infinity(), std::nan("")}) {
        std::ostringstream out;
        out.imbue(std::locale::classic());
        out.precision(16);
        out << v;
        EXPECT_EQ(std::string() + v, out.str());
    }
}

TEST(StringsTest, CaselessComparisonIsStrcasecmp) {
    EXPECT_EQ(caselessCompare("abc", "ABC"), 0);
    EXPECT_LT(caselessCompare("_", "A"), 0);
    EXPECT_LT(caselessCompare("ab", std::string("ABC")), 0);
    EXPECT_EQ(caselessCompare(std::string("ab\0x", 4), std::string("AB\0y", 4)), 0);
    EXPECT_FALSE(caselessIsLessThan("abc", "ABC") || caselessIsLessThan("ABC", "abc"));
    EXPECT_TRUE(caselessIsLessThan("A_", "aa"));
    for (int a = 1; a < 256; ++a) {  // every pair of bytes, against the C runtime
        for (int b = 1; b < 256; ++b) {
            const std::string sa(1, static_cast<char>(a)), sb(1, static_cast<char>(b));
            // Bytes above 127 are no letters in the C locale and compare as
            // unsigned values. Wine's C runtime compares them as signed, so
            // it serves as the reference for the others only.
            const int expected = a < 128 && b < 128 ? strcasecmp(sa.c_str(), sb.c_str()) : a - b;
            const int actual = caselessCompare(sa, sb);
            ASSERT_EQ((actual > 0) - (actual < 0), (expected > 0) - (expected < 0))
                << a << " " << b;
        }
    }
}

TEST(StringsTest, CaseConversionAndTruncation) {
    EXPECT_EQ(toUpper("a1-b_c! \xe9"), "A1-B_C! \xe9");
    EXPECT_EQ(toLower("MiXeD 42."), "mixed 42.");
    std::string s = "hello";
    EXPECT_FALSE(truncate(s, 5) || truncate(s, 10));
    EXPECT_TRUE(truncate(s, 3));
    EXPECT_EQ(s, "hel");
    EXPECT_TRUE(truncate(s, 0));
    EXPECT_EQ(s, "");
}

}  // namespace
