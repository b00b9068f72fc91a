#include <gtest/gtest.h>

#include <fl/i18n.h>
#include <stdlib.h>
#include <unistd.h>

#include <boost/thread/thread.hpp>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "diagnostics/debug_log_internal.h"
#include "kestrel/debug_log.h"
#include "kestrel/exception.h"

using kestrel::KSDebugLog;
using kestrel::KSException;

namespace {

// One record: "<seconds, six decimals> (thread: <lower-case hex>) <text>".
struct Record {
    bool wellFormed = false;
    double time = 0.0;
    std::string thread;
    std::string text;
};

Record parseRecord(const std::string& record) {
    Record parsed;
    const std::size_t open = record.find(" (thread: ");
    const std::size_t close = record.find(") ", open);
    if (open == std::string::npos || close == std::string::npos) {
        return parsed;
    }
    const std::string seconds = record.substr(0, open);
    parsed.thread = record.substr(open + 10, close - open - 10);
    parsed.text = record.substr(close + 2);
    parsed.wellFormed = seconds.find_first_not_of("0123456789.") == std::string::npos &&
                        seconds.find('.') == seconds.size() - 7 && !parsed.thread.empty() &&
                        parsed.thread.find_first_not_of("0123456789abcdef") == std::string::npos;
    parsed.time = parsed.wellFormed ? std::stod(seconds) : 0.0;
    return parsed;
}

std::string readFile(const std::string& name) {
    std::ifstream file(name, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

std::string currentThreadText() {
    std::ostringstream text;
    text << boost::this_thread::get_id();
    return text.str();
}

// TMPDIR names a fresh directory (or the given path) while the object lives.
class ScopedTmpdir {
  public:
    ScopedTmpdir()
        : _path(testing::TempDir() + "kestrel_debug_log_" + std::to_string(::getpid())),
          _owned(true) {
        std::filesystem::remove_all(_path);
        std::filesystem::create_directories(_path);
        ::setenv("TMPDIR", _path.c_str(), 1);
    }
    explicit ScopedTmpdir(std::string path) : _path(std::move(path)), _owned(false) {
        ::setenv("TMPDIR", _path.c_str(), 1);
    }
    ~ScopedTmpdir() {
        ::unsetenv("TMPDIR");
        if (_owned) {
            std::filesystem::remove_all(_path);
        }
    }
    const std::string& path() const { return _path; }

  private:
    std::string _path;
    bool _owned;
};

std::vector<std::string> debuggerRecords;

// Sends the debugger records to debuggerRecords while the object lives.
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
    const Record record = parseRecord(debuggerRecords[0]);
    ASSERT_TRUE(record.wellFormed) << debuggerRecords[0];
    EXPECT_EQ(record.thread, currentThreadText());
    EXPECT_EQ(record.text, "3 apples\n");
    EXPECT_TRUE(std::filesystem::is_empty(tmpdir.path()));
}

TEST(KSDebugLogTest, UnbufferedFileHoldsBannerAndEachRecordAtOnce) {
    const ScopedTmpdir tmpdir;
    const double before = kestrel::Timestamp().getTime();
    KSDebugLog log("KT", false);
    const std::filesystem::path name = log.getFileName();
    EXPECT_EQ(name.parent_path(), tmpdir.path());
    EXPECT_EQ(name.filename().string().rfind("KT", 0), 0u);

    const std::string banner = readFile(name);
    const Record first = parseRecord(banner);
    ASSERT_TRUE(first.wellFormed) << banner;
    EXPECT_GE(first.time + 1e-6, before);
    EXPECT_LE(first.time, kestrel::Timestamp().getTime());
    EXPECT_EQ(first.thread, currentThreadText());
    EXPECT_EQ(first.text, "VELOX Debug Output file.\n\n\n");

    EXPECT_TRUE(log.writeString("%d %s", 3, "apples"));
    const Record second = parseRecord(readFile(name).substr(banner.size()));
    EXPECT_TRUE(second.wellFormed);
    EXPECT_EQ(second.text, "3 apples\n");

    std::string otherThread;
    boost::thread other([&] {
        otherThread = currentThreadText();
        log.writeString("from the other thread");
    });
    other.join();
    EXPECT_NE(readFile(name).find("(thread: " + otherThread + ") from the other thread\n"),
              std::string::npos);

    log.writeString("%s", std::string(3000, 'x').c_str());
    const std::string content = readFile(name);
    EXPECT_NE(content.find(") " + std::string(2047, 'x') + "\n"), std::string::npos);
    EXPECT_EQ(content.find(std::string(2048, 'x')), std::string::npos);
}

TEST(KSDebugLogTest, BufferedFileIsCompleteAfterDestructionAndDebuggerGetsTheSameRecords) {
    const ScopedTmpdir tmpdir;
    const DebuggerCapture debugger;
    std::string name;
    {
        KSDebugLog log(nullptr, true, true, KSDebugLog::LogToFileAndDebugger);
        name = log.getFileName();
        EXPECT_EQ(std::filesystem::path(name).filename().string().rfind("VX", 0), 0u);
        EXPECT_TRUE(log.writeString("kept in the buffer"));
        EXPECT_EQ(readFile(name), "");
    }
    ASSERT_EQ(debuggerRecords.size(), 2u);
    EXPECT_EQ(readFile(name), debuggerRecords[0] + debuggerRecords[1]);

    // A mode outside the enumeration behaves as LogToFile.
    KSDebugLog unnamed(nullptr, false, true, static_cast<KSDebugLog::LoggingMode>(7));
    EXPECT_TRUE(unnamed.writeString("file only"));
    EXPECT_NE(readFile(unnamed.getFileName()).find("file only"), std::string::npos);
    EXPECT_EQ(debuggerRecords.size(), 2u);
}

// Replaces the new file by a directory before opening it, as a concurrent
// program might.
std::FILE* openAfterReplacingByDirectory(const char* name, const char* mode) {
    std::filesystem::remove(name);
    std::filesystem::create_directory(name);
    return std::fopen(name, mode);
}

TEST(KSDebugLogTest, OpeningFailuresCarryTheSystemText) {
    {
        const ScopedTmpdir tmpdir;
        kestrel::detail::setFileOpenForTesting(&openAfterReplacingByDirectory);
        try {
            KSDebugLog log;
            ADD_FAILURE() << "opened " << log.getFileName();
        } catch (const KSException& e) {
            EXPECT_STREQ(e.getID(), "ksdebuglog::fileOpen::cantopenfile");
            EXPECT_EQ(e.getMessage(), "ERROR: Unable to open the debug output file. " +
                                          std::string(std::strerror(EISDIR)));
        }
        kestrel::detail::setFileOpenForTesting(nullptr);

        // Other failures of the foundation services pass through.
        const std::string regularFile = tmpdir.path() + "/file";
        std::ofstream(regularFile) << "x";
        const ScopedTmpdir underFile(regularFile + "/sub");
        EXPECT_THROW(KSDebugLog log, std::filesystem::filesystem_error);
    }

    if (!std::filesystem::is_directory("/sys")) {
        GTEST_SKIP() << "needs sysfs at /sys: a directory that refuses new files even to root";
    }
    const ScopedTmpdir refusing("/sys");
    try {
        KSDebugLog log;
        ADD_FAILURE() << "created " << log.getFileName();
    } catch (const KSException& e) {
        EXPECT_STREQ(e.getID(), "ksdebuglog:fileopen::accessDenied");
        const std::string head = "ERROR: Access denied creating temporary file name ";
        const std::string message = e.getMessage();
        ASSERT_EQ(message.rfind(head, 0), 0u) << message;
        const std::set<std::string> texts = {std::strerror(EACCES), std::strerror(EPERM),
                                             std::strerror(EROFS)};
        EXPECT_EQ(texts.count(message.substr(head.size())), 1u) << message;
    }
}

}  // namespace
