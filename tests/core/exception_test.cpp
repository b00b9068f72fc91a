#include <gtest/gtest.h>

#include <string>

#include "kestrel/exception.h"

using kestrel::KSException;

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
