#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "kestrel/exception.h"

using kestrel::KSException;

namespace {

// Formats through a runtime format string, the way callers with their own
// message tables do.
const char* const kPercentS = "%s";

TEST(KSExceptionTest, NullTextsGiveEmptyStrings) {
    KSException e(nullptr, nullptr);
    ASSERT_NE(e.getID(), nullptr);
    ASSERT_NE(e.getMessage(), nullptr);
    EXPECT_STREQ(e.getID(), "");
    EXPECT_STREQ(e.getMessage(), "");

    KSException f("a:b:c", "value %d", 7);
    EXPECT_STREQ(f.getID(), "a:b:c");
    EXPECT_STREQ(f.getMessage(), "value 7");
    f.setID(nullptr);
    f.setMessage(nullptr);
    EXPECT_STREQ(f.getID(), "");
    EXPECT_STREQ(f.getMessage(), "");
}

TEST(KSExceptionTest, EachFormattedPieceIsCutTo2047Characters) {
    const std::string exact(2047, 'x');
    const std::string full(2048, 'y');
    const std::string over(3000, 'z');

    EXPECT_EQ(std::string(KSException("id", kPercentS, exact.c_str()).getMessage()), exact);
    EXPECT_EQ(std::string(KSException("id", kPercentS, full.c_str()).getMessage()),
              full.substr(0, 2047));
    EXPECT_EQ(std::string(KSException("id", kPercentS, over.c_str()).getMessage()),
              over.substr(0, 2047));

    // The limit applies per piece, not to the whole message.
    KSException e("id", kPercentS, std::string(2000, 'a').c_str());
    e.appendMessage(kPercentS, std::string(100, 'b').c_str());
    EXPECT_EQ(std::string(e.getMessage()).size(), 2100u);
}

TEST(KSExceptionTest, AppendAndPrependAddNoSeparator) {
    KSException e("id", "abc");
    e.appendMessage("def");
    EXPECT_STREQ(e.getMessage(), "abcdef");
    e.prependMessage("xyz");
    EXPECT_STREQ(e.getMessage(), "xyzabcdef");
    e.appendMessage(nullptr);
    e.prependMessage(nullptr);
    EXPECT_STREQ(e.getMessage(), "xyzabcdef");
}

TEST(KSExceptionTest, EmbeddedZeroEndsTheMessage) {
    KSException e("id", "ab%cde", 0);
    EXPECT_STREQ(e.getMessage(), "ab");
}

TEST(KSExceptionTest, CopiesAreIndependent) {
    KSException a("first:id", "one");
    KSException b(a);
    b.setID("second:id");
    b.appendMessage(" two");
    EXPECT_STREQ(a.getID(), "first:id");
    EXPECT_STREQ(a.getMessage(), "one");
    a = b;
    EXPECT_STREQ(a.getID(), "second:id");
    EXPECT_STREQ(a.getMessage(), "one two");
}

TEST(KSExceptionTest, IsNotAStandardException) {
    bool caughtAsStd = false;
    bool caughtAsKs = false;
    try {
        try {
            throw KSException("corvane:plugin:symbolNotFound", "missing %s", "entry");
        } catch (const std::exception&) {
            caughtAsStd = true;
        }
    } catch (const KSException& e) {
        caughtAsKs = true;
        EXPECT_STREQ(e.getID(), "corvane:plugin:symbolNotFound");
        EXPECT_STREQ(e.getMessage(), "missing entry");
    }
    EXPECT_FALSE(caughtAsStd);
    EXPECT_TRUE(caughtAsKs);
}

}  // namespace
