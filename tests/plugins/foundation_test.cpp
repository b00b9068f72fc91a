#include <gtest/gtest.h>

#include <fl/filesystem.h>
#include <fl/i18n.h>

#include <boost/log/core/core.hpp>
#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/channel_capture.h"
#include "support/scoped_tmpdir.h"

namespace {

TEST(FoundationTest, ConvertsTextAndSkipsInvalidUnitsOnly) {
    const std::string text =
        "Gr\xC3\xBC\xC3\x9F"
        "e \xE2\x82\xAC \xF0\x9D\x84\x9E";
    const fl::ustring utf16 = u"Gr\u00FC\u00DFe \u20AC \U0001D11E";
    EXPECT_EQ(fl::i18n::to_ustring(text), utf16);
    EXPECT_EQ(fl::i18n::to_string(utf16), text);
    EXPECT_EQ(fl::i18n::to_wstring(utf16), L"Gr\u00FC\u00DFe \u20AC \U0001D11E");

    EXPECT_EQ(fl::i18n::to_ustring(std::string("a\xFF"
                                               "b\xC3(")),
              u"ab(");
    const fl::ustring unpaired = {u'a', char16_t(0xD800), u'b'};
    EXPECT_EQ(fl::i18n::to_string(unpaired), "ab");
    EXPECT_EQ(fl::filesystem::codecvt_ustring_to_narrow_string(true).convert(unpaired), "ab");
    EXPECT_THROW(fl::filesystem::codecvt_ustring_to_narrow_string(false).convert(unpaired),
                 fl::i18n::conversion_error);
}

TEST(FoundationTest, TemporaryNamesAreNewFilesNoTwoCallersShare) {
    const kestrel_test::ScopedTmpdir tmpdir;
    const std::string& directory = tmpdir.path();
    EXPECT_EQ(fl::filesystem::temp_directory_name(), fl::i18n::to_ustring(directory));

    std::vector<std::vector<fl::ustring>> names(4);
    std::vector<std::thread> threads;
    for (std::vector<fl::ustring>& perThread : names) {
        threads.emplace_back([&directory, &perThread] {
            for (int i = 0; i < 25; ++i) {
                perThread.push_back(
                    fl::filesystem::tmpnam(fl::i18n::to_ustring(directory), u"pre", u".t"));
            }
        });
    }
    std::set<fl::ustring> unique;
    for (std::size_t t = 0; t < threads.size(); ++t) {
        threads[t].join();
        unique.insert(names[t].begin(), names[t].end());
    }
    EXPECT_EQ(unique.size(), 100u);
    const std::filesystem::path file = fl::i18n::to_string(*unique.begin());
    EXPECT_TRUE(file.parent_path() == directory && file.extension() == ".t" &&
                file.filename().string().rfind("pre", 0) == 0 &&
                std::filesystem::is_regular_file(file))
        << file;
}

TEST(FoundationTest, ChannelWritesEnabledSeveritiesWhileLoggingIsEnabled) {
    EXPECT_EQ(foundation::log::severity_mask("test::Unset"),
              foundation::log::default_severity_mask);
    foundation::log::diagnostic_logger channel("test::Channel");
    kestrel_test::ChannelCapture capture("test::Channel", 8);
    channel.write(8, "progress");
    channel.write(512, "failure");
    boost::log::core::get()->set_logging_enabled(false);
    channel.write(8, "hidden");
    boost::log::core::get()->set_logging_enabled(true);
    EXPECT_EQ(capture.lines(), (std::vector<kestrel_test::ChannelLine>{{8, "progress"}}));

    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&channel] {
            for (int i = 0; i < 50; ++i) {
                channel.write(8, "line");
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(capture.lines().size(), 201u);
}

}  // namespace
