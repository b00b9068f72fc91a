// A host that passes ready-made messages as formats and builds with
// -Werror=format-security switches kestrel's format checks off with one
// macro. This file is compiled that way (see CMakeLists.txt).
#define KESTREL_NO_FORMAT_CHECKS
#include <gtest/gtest.h>

#include <string>

#include "kestrel/debug_log.h"
#include "kestrel/exception.h"

namespace kestrel {
namespace {

TEST(DocumentedInterfaceTest, FormatChecksCanBeSwitchedOffForReadyMadeMessages) {
    const std::string message = "already formatted: 100 percent";
    const char* text = message.c_str();
    KSException e("host:id", text);
    e.appendMessage(text);
    EXPECT_EQ(std::string(e.getMessage()), message + message);
    KSDebugLog log("kestrel-format-", true, false);  // disabled: writes nowhere
    EXPECT_FALSE(log.writeString(text));
}

}  // namespace
}  // namespace kestrel
