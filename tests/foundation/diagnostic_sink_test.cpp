#include <gtest/gtest.h>

#include <foundation/log/diagnostic_logger.h>

#include <string>
#include <vector>

#include "support/channel_capture.h"

using foundation::log::diagnostic_logger;
using kestrel_test::ChannelCapture;
using kestrel_test::ChannelLine;

namespace {

// What writing line to channel at severity puts on standard output and
// standard error.
std::string written(diagnostic_logger& channel, unsigned int severity, const std::string& line) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    channel.write(severity, line);
    const std::string out = testing::internal::GetCapturedStdout();
    return out + "|" + testing::internal::GetCapturedStderr();
}

}  // namespace

// Until the host routes the records itself, they are lines on standard
// error; afterwards they reach the host's sink only, also from channels
// built later.
TEST(DiagnosticSinkTest, LinesGoToStandardErrorUntilTheHostTakesThemOver) {
    diagnostic_logger channel("test::SinkChannel");
    foundation::log::set_severity_mask("test::SinkChannel", 8 | 512);
    EXPECT_EQ(written(channel, 512, "first"), "|[test::SinkChannel] [512] first\n");
    EXPECT_EQ(written(channel, 4, "masked"), "|");

    const ChannelCapture hostSink("test::SinkChannel", 8 | 512);
    foundation::log::remove_default_sink();
    EXPECT_EQ(written(channel, 8, "second"), "|");
    diagnostic_logger later("test::LaterChannel");
    foundation::log::set_severity_mask("test::LaterChannel", 512);
    EXPECT_EQ(written(later, 512, "unrouted"), "|");
    EXPECT_EQ(hostSink.lines(), std::vector<ChannelLine>({{8, "second"}}));
}
