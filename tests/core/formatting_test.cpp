#include <gtest/gtest.h>

#include <string>

#include "kestrel/formatting.h"

using namespace kestrel;

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
