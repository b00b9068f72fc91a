#include <gtest/gtest.h>

#include <fl/i18n.h>

#include <boost/lexical_cast.hpp>
#include <boost/thread/thread.hpp>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "diagnostics/debug_log_internal.h"
#include "kestrel/debug_log.h"
#include "kestrel/exception.h"
#include "support/os.h"
#include "support/scoped_tmpdir.h"

using kestrel::KSDebugLog;

namespace {

std::string readFile(const std::filesystem::path& name) {
    // As text: line ends are \n on every system.
    return {std::istreambuf_iterator<char>(std::ifstream(name).rdbuf()), {}};
}

// The text of a record "<seconds, six decimals> (thread: <thread>) <text>"
// that the calling thread wrote, or "?" for a record of another form.
std::string textOf(const std::string& record) {
    const std::string tag =
        " (thread: " + boost::lexical_cast<std::string>(boost::this_thread::get_id()) + ") ";
    const std::size_t at = record.find(tag);
    const bool timed = at != std::string::npos && at > 7 && record[at - 7] == '.' &&
                       record.find_first_not_of("0123456789.") == at;
    return timed ? record.substr(at + tag.size()) : "?";
}

std::vector<std::string> debuggerRecords;

void toDebuggerRecords(const wchar_t* text) {
    debuggerRecords.push_back(fl::i18n::to_string(fl::i18n::to_ustring(text)));
}

TEST(KSDebugLogTest, EachModeWritesWhereItSaysAndUnbufferedRecordsReachTheFileAtOnce) {
    const kestrel_test::ScopedTmpdir tmpdir;
    kestrel::detail::setDebuggerOutputForTesting(&toDebuggerRecords);
    KSDebugLog disabled(nullptr, true, false, KSDebugLog::LogToFileAndDebugger);
    EXPECT_FALSE(disabled.writeString("lost"));
    KSDebugLog debuggerOnly("P", true, true, KSDebugLog::LogToDebugger);
    EXPECT_TRUE(debuggerOnly.writeString("%d %s", 3, "apples"));
    ASSERT_EQ(debuggerRecords.size(), 1u);  // no banner
    EXPECT_EQ(textOf(debuggerRecords[0]), "3 apples\n");

    KSDebugLog log("KT", false, true, KSDebugLog::LogToFileAndDebugger);
    const std::filesystem::path name = log.getFileName();
    EXPECT_EQ(name.filename().string().rfind("KT", 0), 0u);
    EXPECT_EQ(textOf(readFile(name)), "VELOX Debug Output file.\n\n\n");
    std::string otherText;
    boost::thread([&] {
        EXPECT_TRUE(log.writeString("%s", std::string(3000, 'x').c_str()));
        otherText = textOf(debuggerRecords.back());
    }).join();
    ASSERT_EQ(debuggerRecords.size(), 3u);
    EXPECT_EQ(readFile(name), debuggerRecords[1] + debuggerRecords[2]);
    EXPECT_EQ(otherText, std::string(2047, 'x') + "\n");

    // Logs opened at once on several threads each get a new file in the
    // temporary directory, where the disabled and debugger-only logs made
    // none; a mode outside the enumeration writes to the file only.
    boost::thread_group threads;
    for (int t = 0; t < 4; ++t) {
        threads.create_thread([] {
            for (int i = 0; i < 25; ++i) {
                KSDebugLog(nullptr, true, true, static_cast<KSDebugLog::LoggingMode>(7));
            }
        });
    }
    threads.join_all();
    const std::filesystem::directory_iterator files(tmpdir.path());
    EXPECT_EQ(std::distance(begin(files), end(files)), 101);
    EXPECT_EQ(debuggerRecords.size(), 3u);
    kestrel::detail::setDebuggerOutputForTesting(nullptr);
}

TEST(KSDebugLogTest, DebuggerRecordsReachTheSystemsDebuggerOutput) {
    const std::optional<std::string> seen = kestrel_test::debuggerOutputOf([] {
        KSDebugLog log(nullptr, true, true, KSDebugLog::LogToDebugger);
        log.writeString("%d %s", 3, "apples");
    });
    if (!seen) {
        GTEST_SKIP() << "the system does not let this process trace another";
    }
    EXPECT_EQ(textOf(*seen), "3 apples\n");
}

// Replaces the new file by a directory before opening it, as another
// program might.
std::FILE* openAfterReplacingByDirectory(const char* name, const char* mode) {
    std::filesystem::remove(name);
    std::filesystem::create_directory(name);
    return std::fopen(name, mode);
}

// "<identifier> <message>" of the exception that opening a log throws.
std::string openingFailure() {
    try {
        KSDebugLog log;
    } catch (const kestrel::KSException& e) {
        return e.getID() + std::string(" ") + e.getMessage();
    }
    return "no exception";
}

TEST(KSDebugLogTest, OpeningFailuresCarryTheSystemText) {
    const kestrel_test::ScopedTmpdir tmpdir;
    kestrel::detail::setFileOpenForTesting(&openAfterReplacingByDirectory);
    EXPECT_EQ(openingFailure(),
              "ksdebuglog::fileOpen::cantopenfile ERROR: Unable to open the debug output file. " +
                  kestrel_test::systemText(kestrel_test::kOpenedDirectory));
    kestrel::detail::setFileOpenForTesting(nullptr);

    if (!std::filesystem::is_directory("/sys")) {
        GTEST_SKIP() << "needs sysfs at /sys: a directory that refuses new files even to root";
    }
    kestrel_test::setEnv(kestrel_test::kTempDirVariable, "/sys");  // until tmpdir goes
    const std::string failure = openingFailure();
    const std::string head =
        "ksdebuglog:fileopen::accessDenied ERROR: Access denied creating temporary file name ";
    bool matched = false;
    for (const kestrel_test::ErrorCode code : kestrel_test::kCreationRefused) {
        matched = matched || failure == head + kestrel_test::systemText(code);
    }
    EXPECT_TRUE(matched) << failure;
}

}  // namespace
