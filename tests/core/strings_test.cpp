#include <gtest/gtest.h>
#include <strings.h>

#include <string>

#include "kestrel/strings.h"

using namespace kestrel;  // the operators take std::string: callers bring them into scope

TEST(StringsTest, AppendsNumberAndTruthTextsAsAClassicStream) {
    std::string s = "n=";
    (((s += short{-5}) += ' ') += 0) += -1234567890L;  // std::string's own += still applies
    EXPECT_EQ(s + true + false, "n=-5 0-1234567890truefalse");
    EXPECT_EQ(std::string() + 0.1 + " " + 1.0 / 3.0 + " " + 100.0 + " " + 1e20 + " " + 1e16 + " " +
                  0.0001 + " " + 1e-5 + " " + 2.5 + " " + -0.0,
              "0.1 0.3333333333333333 100 1e+20 1e+16 0.0001 1e-05 2.5 -0");
}

TEST(StringsTest, CaselessComparisonIsStrcasecmpAndCaseHelpersKeepOtherBytes) {
    EXPECT_EQ(caselessCompare(std::string("ab\0x", 4), std::string("AB\0y", 4)), 0);
    for (int ab = 1; ab < 256 * 256; ++ab) {  // every pair of bytes after a letter
        const char a[] = {'q', static_cast<char>(ab / 256), 0};
        const char b[] = {'Q', static_cast<char>(ab % 256), 0};
        // Bytes above 127 are no letters in the C locale and compare as unsigned
        // values; Wine's C runtime compares them as signed, so it is the
        // reference for the others only.
        const bool ascii = ab / 256 < 128 && ab % 256 < 128;
        const int want = ascii ? strcasecmp(a, b) : ab / 256 - ab % 256;
        const int got = caselessCompare(a, b);
        ASSERT_EQ((got > 0) - (got < 0), (want > 0) - (want < 0)) << ab;
        ASSERT_EQ(caselessIsLessThan(a, b), want < 0) << ab;
    }
    EXPECT_EQ(toUpper("a1-b_c! \xe9"), "A1-B_C! \xe9");
    EXPECT_EQ(toLower("MiXeD 42."), "mixed 42.");
    std::string s = "hello";
    EXPECT_FALSE(truncate(s, 5) || truncate(s, 10));
    EXPECT_TRUE(truncate(s, 3) && s == "hel" && truncate(s, 0) && s.empty());
}
