#include <gtest/gtest.h>

#include <fl/filesystem.h>
#include <fl/i18n.h>
#include <stdlib.h>

#include <boost/log/core/core.hpp>
#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/channel_capture.h"

namespace {

TEST(FoundationTextTest, ConvertsBetweenFormsAndSkipsInvalidInput) {
    const std::string text =
        "Gr\xC3\xBC\xC3\x9F"
        "e \xE2\x82\xAC \xF0\x9D\x84\x9E";  // "Grüße € 𝄞"
    const fl::ustring utf16 = fl::i18n::to_ustring(text);
    EXPECT_EQ(utf16, u"Gr\u00FC\u00DFe \u20AC \U0001D11E");
    EXPECT_EQ(fl::i18n::to_string(utf16), text);
    EXPECT_EQ(fl::i18n::to_wstring(utf16), L"Gr\u00FC\u00DFe \u20AC \U0001D11E");
    EXPECT_EQ(fl::i18n::to_ustring(fl::i18n::to_wstring(utf16)), utf16);

    EXPECT_EQ(fl::i18n::to_ustring(std::string("a\xFF"
                                               "b\xC3(")),
              u"ab(");
    const fl::ustring unpaired = {u'a', char16_t(0xD800), u'b'};
    EXPECT_EQ(fl::i18n::to_string(unpaired), "ab");
    const fl::filesystem::codecvt_ustring_to_narrow_string lenient(true);
    const fl::filesystem::codecvt_ustring_to_narrow_string strict(false);
    EXPECT_EQ(lenient.convert(unpaired), "ab");
    EXPECT_THROW(strict.convert(unpaired), fl::i18n::conversion_error);
}

class ScopedTmpdir {
  public:
    explicit ScopedTmpdir(const std::string& value) { ::setenv("TMPDIR", value.c_str(), 1); }
    ~ScopedTmpdir() { ::unsetenv("TMPDIR"); }
};

TEST(FoundationFilesystemTest, TemporaryNamesAreNewFilesNoCallerSharesAndRefusalsAreReported) {
    const std::filesystem::path directory = testing::TempDir() + "kestrel_tmpnam";
    std::filesystem::remove_all(directory);
    std::filesystem::create_directories(directory);
    {
        const ScopedTmpdir tmpdir(directory.string());
        EXPECT_EQ(fl::filesystem::temp_directory_name(), fl::i18n::to_ustring(directory.string()));
    }

    // Concurrent callers each get their own file.
    constexpr int kThreads = 4;
    constexpr int kNamesPerThread = 25;
    std::vector<std::vector<fl::ustring>> names(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kNamesPerThread; ++i) {
                names[static_cast<std::size_t>(t)].push_back(fl::filesystem::tmpnam(
                    fl::i18n::to_ustring(directory.string()), u"pre", u".txt"));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::set<fl::ustring> unique;
    for (const auto& perThread : names) {
        for (const fl::ustring& name : perThread) {
            unique.insert(name);
            const std::filesystem::path file = fl::i18n::to_string(name);
            EXPECT_EQ(file.parent_path(), directory);
            EXPECT_EQ(file.filename().string().rfind("pre", 0), 0u);
            EXPECT_EQ(file.extension(), ".txt");
            EXPECT_TRUE(fl::filesystem::exists(name));
        }
    }
    EXPECT_EQ(unique.size(), static_cast<std::size_t>(kThreads * kNamesPerThread));

    // Backslashes are separators; a missing directory is no access problem.
    EXPECT_TRUE(
        fl::filesystem::exists(fl::i18n::to_ustring(directory.string() + "\\..\\kestrel_tmpnam")));
    EXPECT_FALSE(fl::filesystem::exists(u""));
    try {
        fl::filesystem::tmpnam(fl::i18n::to_ustring(directory.string() + "/missing"), u"p", u"");
        ADD_FAILURE() << "no exception";
    } catch (const fl::filesystem::AccessDenied&) {
        ADD_FAILURE() << "a missing directory reported as access denied";
    } catch (const std::filesystem::filesystem_error& e) {
        EXPECT_EQ(e.code(), std::errc::no_such_file_or_directory);
    }
    // sysfs takes no new files, whoever asks (root included).
    if (std::filesystem::is_directory("/sys")) {
        EXPECT_THROW(fl::filesystem::tmpnam(u"/sys", u"p", u""), fl::filesystem::AccessDenied);
    }
    std::filesystem::remove_all(directory);
}

TEST(FoundationLogTest, ChannelWritesEnabledSeveritiesOnlyWhileLoggingIsEnabled) {
    foundation::log::diagnostic_logger channel("test::Channel");
    EXPECT_EQ(foundation::log::severity_mask("test::Unset"),
              foundation::log::default_severity_mask);
    kestrel_test::ChannelCapture capture("test::Channel", 8);
    channel.write(8, "progress");
    channel.write(512, "failure");
    EXPECT_EQ(capture.lines(), (std::vector<kestrel_test::ChannelLine>{{8, "progress"}}));

    boost::log::core::get()->set_logging_enabled(false);
    channel.write(8, "hidden");
    boost::log::core::get()->set_logging_enabled(true);
    EXPECT_EQ(capture.lines().size(), 1u);

    // Lines from several threads all arrive whole.
    capture.clear();
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
    EXPECT_EQ(capture.lines().size(), 200u);
}

}  // namespace
