#include <gtest/gtest.h>

#include <foundation/log/diagnostic_logger.h>

#include <string>
#include <vector>

#include "support/channel_capture.h"

using foundation::log::diagnostic_logger;

// Until the host routes the records itself, they are lines on standard
// error; afterwards they reach the host's sink only, also from channels
// built later.
TEST(DiagnosticLoggerTest, LinesGoToStandardErrorUntilTheHostTakesThemOver) {
    const auto written = [](diagnostic_logger& channel, unsigned int severity) {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        channel.write(severity, "line");
        const std::string out = testing::internal::GetCapturedStdout();
        return out + "|" + testing::internal::GetCapturedStderr();
    };
    diagnostic_logger channel("test::SinkChannel");
    foundation::log::set_severity_mask("test::SinkChannel", 8 | 512);
    EXPECT_EQ(written(channel, 512), "|[test::SinkChannel] [512] line\n");
    EXPECT_EQ(written(channel, 4), "|");
    const kestrel_test::ChannelCapture hostSink("test::SinkChannel", 8 | 512);
    foundation::log::remove_default_sink();
    EXPECT_EQ(written(channel, 8), "|");
    diagnostic_logger later("test::LaterChannel");
    foundation::log::set_severity_mask("test::LaterChannel", 512);
    EXPECT_EQ(written(later, 512), "|");
    EXPECT_EQ(hostSink.lines(), std::vector<kestrel_test::ChannelLine>({{8, "line"}}));
}
