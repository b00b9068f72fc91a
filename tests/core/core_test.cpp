#include <gtest/gtest.h>
#include <strings.h>

#include <chrono>
#include <future>
#include <string>

#include "kestrel/exception.h"
#include "kestrel/formatting.h"
#include "kestrel/lock.h"
#include "kestrel/strings.h"
#include "support/fake_clock.h"

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

static std::string format(const char* text, const char* indent, bool period = false,
                          bool newline = false) {
    std::string result = "previous";
    fcns::formatText(result, text, indent, period, newline);
    return result;
}

TEST(FormatTextTest, TrimsIndentsAndEndsWithOnePeriodAndNewline) {
    EXPECT_EQ(format(nullptr, "> ", true, true), "previous");
    EXPECT_EQ(format("\n\tabc\r\x1f", nullptr), "abc");
    EXPECT_EQ(format(" abc ", ""), " abc ");
    EXPECT_EQ(format("\t\xc3\xa9t\xc3\xa9\n", nullptr), "\xc3\xa9t\xc3\xa9");  // UTF-8 kept
    EXPECT_EQ(format("first\nsecond", "Note: "), "Note: first\n      second");
    EXPECT_EQ(format("a\n\nb\r\n", "> "), "> a\n  \n  b");
    EXPECT_EQ(format("done.\n", nullptr, true), "done.");
    EXPECT_EQ(format("\t", "\t", true), ".");
    EXPECT_EQ(format("x\n\n", "- ", true, true), "- x.\n");
}

TEST(IdentifierTest, SeriesStartAtOneAndAtTheCurrentSecond) {
    // No other test of this program draws identifiers: these are its first.
    EXPECT_EQ(fcns::getSequentialID(), 1);
    EXPECT_EQ(fcns::getSequentialID(), 2);
    kestrel_test::FakeClock clock(1234567890.5);
    EXPECT_EQ(fcns::getUniqueID(), 1234567890);
    clock.advance(100.0);
    EXPECT_EQ(fcns::getUniqueID(), 1234567891);
}

TEST(KSExceptionTest, PiecesAreCutTo2047CharactersAndJoinedWithoutSeparator) {
    const std::string over(3000, 'y');
    KSException e(nullptr, "%s", over.c_str());
    EXPECT_STREQ(e.getID(), "");
    EXPECT_EQ(e.getMessage(), over.substr(0, 2047));
    e.setMessage("abc%d", 1);
    e.appendMessage("%s", over.c_str());  // the limit holds for each piece
    e.prependMessage("x%s", "y");
    e.appendMessage(nullptr);
    e.prependMessage(nullptr);
    EXPECT_EQ(e.getMessage(), "xyabc1" + over.substr(0, 2047));
}

TEST(KSCriticalSectionTest, OtherThreadEntersOnlyAfterTheLastLeave) {
    KSCriticalSection lock;
    lock.enter();
    lock.enter();
    lock.leave();  // still held once
    auto other = std::async(std::launch::async, [&] {
        lock.enter();
        lock.leave();
    });
    EXPECT_EQ(other.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    lock.leave();
    EXPECT_EQ(other.wait_for(std::chrono::seconds(5)), std::future_status::ready);
}
