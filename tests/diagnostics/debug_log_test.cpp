#include <gtest/gtest.h>

#include <fl/i18n.h>

#include <boost/thread/thread.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "diagnostics/debug_log_internal.h"
#include "kestrel/debug_log.h"
#include "kestrel/exception.h"
#include "support/os.h"
#include "support/scoped_tmpdir.h"

using kestrel::KSDebugLog;
using kestrel::KSException;
using kestrel_test::ScopedTmpdir;

namespace {

std::string readFile(const std::filesystem::path& name) {
    std::ostringstream content;
    content << std::ifstream(name).rdbuf();  // as text: line ends are \n on every system
    return content.str();
}

std::string threadText() {
    std::ostringstream text;
    text << boost::this_thread::get_id();
    return text.str();
}

// The text of a record "<seconds, six decimals> (thread: <thread>) <text>",
// or "?" for a record of another form.
std::string textOf(const std::string& record, const std::string& thread = threadText()) {
    const std::string tag = " (thread: " + thread + ") ";
    const std::size_t at = record.find(tag);
    const bool timed = at != std::string::npos && at > 7 && record[at - 7] == '.' &&
                       record.find_first_not_of("0123456789.") == at;
    return timed ? record.substr(at + tag.size()) : "?";
}

std::vector<std::string> debuggerRecords;

// Collects the debugger records in debuggerRecords while the object lives.
struct DebuggerCapture {
    DebuggerCapture() {
        debuggerRecords.clear();
        kestrel::detail::setDebuggerOutputForTesting([](const wchar_t* text) {
            debuggerRecords.push_back(fl::i18n::to_string(fl::i18n::to_ustring(text)));
        });
    }
    ~DebuggerCapture() { kestrel::detail::setDebuggerOutputForTesting(nullptr); }
};

TEST(KSDebugLogTest, DisabledAndDebuggerOnlyLogsCreateNoFile) {
    const ScopedTmpdir tmpdir;
    const DebuggerCapture debugger;
    KSDebugLog disabled(nullptr, true, false, KSDebugLog::LogToFile);
    EXPECT_EQ(disabled.getFileName(), "");
    EXPECT_FALSE(disabled.writeString("lost"));

    KSDebugLog debuggerOnly("P", true, true, KSDebugLog::LogToDebugger);
    EXPECT_EQ(debuggerOnly.getFileName(), "");
    EXPECT_TRUE(debuggerOnly.writeString("%d %s", 3, "apples"));
    ASSERT_EQ(debuggerRecords.size(), 1u);  // no banner
    EXPECT_EQ(textOf(debuggerRecords[0]), "3 apples\n");
    EXPECT_TRUE(std::filesystem::is_empty(tmpdir.path()));
}

TEST(KSDebugLogTest, UnbufferedFileHoldsBannerAndEachRecordAtOnce) {
    const ScopedTmpdir tmpdir;
    KSDebugLog log("KT", false);
    const std::filesystem::path name = log.getFileName();
    EXPECT_EQ(name.parent_path(), tmpdir.path());
    EXPECT_EQ(name.filename().string().rfind("KT", 0), 0u);

    const std::string banner = readFile(name);
    EXPECT_EQ(textOf(banner), "VELOX Debug Output file.\n\n\n");

    EXPECT_TRUE(log.writeString("%d %s", 3, "apples"));
    EXPECT_EQ(textOf(readFile(name).substr(banner.size())), "3 apples\n");

    std::string otherThread;
    boost::thread other([&] {
        otherThread = threadText();
        log.writeString("from another thread");
    });
    other.join();
    log.writeString("%s", std::string(3000, 'x').c_str());
    const std::string content = readFile(name);
    EXPECT_NE(content.find("(thread: " + otherThread + ") from another thread\n"),
              std::string::npos);
    EXPECT_NE(content.find(") " + std::string(2047, 'x') + "\n"), std::string::npos);
    EXPECT_EQ(content.find(std::string(2048, 'x')), std::string::npos);
}

TEST(KSDebugLogTest, BufferedFileIsCompleteAfterDestructionAndDebuggerSeesTheSameRecords) {
    const ScopedTmpdir tmpdir;
    const DebuggerCapture debugger;
    std::string name;
    {
        KSDebugLog log(nullptr, true, true, KSDebugLog::LogToFileAndDebugger);
        name = log.getFileName();
        EXPECT_EQ(std::filesystem::path(name).filename().string().rfind("VX", 0), 0u);
        EXPECT_TRUE(log.writeString("kept in the buffer"));
        if (!kestrel_test::runningUnderWine()) {  // its C runtime writes each fprintf through
            EXPECT_EQ(readFile(name), "");
        }
    }
    ASSERT_EQ(debuggerRecords.size(), 2u);
    EXPECT_EQ(readFile(name), debuggerRecords[0] + debuggerRecords[1]);

    // A mode outside the enumeration behaves as LogToFile.
    KSDebugLog other(nullptr, false, true, static_cast<KSDebugLog::LoggingMode>(7));
    EXPECT_TRUE(other.writeString("file only"));
    EXPECT_NE(readFile(other.getFileName()).find("file only"), std::string::npos);
    EXPECT_EQ(debuggerRecords.size(), 2u);
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

std::string failureOf(const char* expectedId) {
    try {
        KSDebugLog log;
    } catch (const KSException& e) {
        EXPECT_STREQ(e.getID(), expectedId);
        return e.getMessage();
    }
    ADD_FAILURE() << "no exception";
    return {};
}

TEST(KSDebugLogTest, OpeningFailuresCarryTheSystemText) {
    {
        const ScopedTmpdir tmpdir;
        kestrel::detail::setFileOpenForTesting(&openAfterReplacingByDirectory);
        const std::string text = kestrel_test::systemText(kestrel_test::kOpenedDirectory);
        EXPECT_NE(text, "");
        EXPECT_EQ(failureOf("ksdebuglog::fileOpen::cantopenfile"),
                  "ERROR: Unable to open the debug output file. " + text);
        kestrel::detail::setFileOpenForTesting(nullptr);

        // Other failures of the foundation services pass through.
        std::ofstream(tmpdir.path() + "/file") << "x";
        const ScopedTmpdir underFile(tmpdir.path() + "/file/sub");
        EXPECT_THROW(KSDebugLog(), std::filesystem::filesystem_error);
    }
    if (!std::filesystem::is_directory("/sys")) {
        GTEST_SKIP() << "needs sysfs at /sys: a directory that refuses new files even to root";
    }
    const ScopedTmpdir refusing("/sys");
    const std::string message = failureOf("ksdebuglog:fileopen::accessDenied");
    const std::string head = "ERROR: Access denied creating temporary file name ";
    bool matched = false;
    for (const kestrel_test::ErrorCode code : kestrel_test::kCreationRefused) {
        matched = matched || message == head + kestrel_test::systemText(code);
    }
    EXPECT_TRUE(matched) << message;
}

}  // namespace
