#include <gtest/gtest.h>

#include <fl/i18n.h>

#include <boost/lexical_cast.hpp>
#include <boost/thread/thread.hpp>
#include <cstdio>
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

#if !defined(_WIN32)
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

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
    KSDebugLog debuggerOnly("P", true, true, KSDebugLog::LogToDebugger);
    EXPECT_TRUE(debuggerOnly.writeString("%d %s", 3, "apples"));
    ASSERT_EQ(debuggerRecords.size(), 1u);  // no banner
    EXPECT_EQ(textOf(debuggerRecords[0]), "3 apples\n");

    KSDebugLog log("KT", false, true, KSDebugLog::LogToFileAndDebugger);
    const std::filesystem::path name = log.getFileName();
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

// What the system's debugger output received while body ran, as an attached
// debugger sees it; nothing when this process may not trace another.
std::optional<std::string> debuggerOutputOf(void (*body)()) {
#if defined(_WIN32)
    // Windows 10 raises the wide debug-string exception and, when no one
    // takes it, the narrow one; Wine only the narrow one. Taken: the narrow one.
    static thread_local std::string* received = nullptr;
    std::string text;
    received = &text;
    PVOID handler = ::AddVectoredExceptionHandler(1, [](EXCEPTION_POINTERS* info) -> LONG {
        const EXCEPTION_RECORD& record = *info->ExceptionRecord;
        if (received == nullptr || record.ExceptionCode != DBG_PRINTEXCEPTION_C)
            return EXCEPTION_CONTINUE_SEARCH;
        *received += reinterpret_cast<const char*>(record.ExceptionInformation[1]);
        return EXCEPTION_CONTINUE_EXECUTION;
    });
    body();
    ::RemoveVectoredExceptionHandler(handler);
    received = nullptr;
    return text;
#else
    // body runs in a child that this process traces, its standard error in a file.
    std::FILE* output = std::tmpfile();
    if (output == nullptr)
        return std::nullopt;
    const pid_t child = ::fork();
    if (child == 0) {
        ::dup2(::fileno(output), STDERR_FILENO);
        const bool traced = ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0;
        if (traced)
            body();
        ::_exit(traced ? 0 : 1);
    }
    int status = 0;
    while (child > 0 && ::waitpid(child, &status, 0) == child && WIFSTOPPED(status))
        ::ptrace(PTRACE_CONT, child, nullptr, reinterpret_cast<void*>(long{WSTOPSIG(status)}));
    char text[4096];
    std::rewind(output);
    const std::string seen(text, std::fread(text, 1, sizeof text, output));
    std::fclose(output);
    if (child <= 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
        return std::nullopt;
    return seen;
#endif
}

TEST(KSDebugLogTest, DebuggerRecordsReachTheSystemsDebuggerOutput) {
    const std::optional<std::string> seen = debuggerOutputOf([] {
        KSDebugLog log(nullptr, true, true, KSDebugLog::LogToDebugger);
        log.writeString("%d %s", 3, "apples");
    });
    if (!seen) {
        GTEST_SKIP() << "the system does not let this process trace another";
    }
    EXPECT_EQ(textOf(*seen), "3 apples\n");
}

// A temporary directory whose name is beyond ASCII and beyond the Western
// code pages, as a user's profile folder may be.
const std::string kWorldwideSuffix = u8"_Jos\u00e9_\u65e5\u672c";

TEST(KSDebugLogTest, PrefixesNameAFileInsideTheTemporaryDirectoryWhateverTheyHold) {
    // The temporary directory sits alone in a directory of this test's own
    // (other tests create and remove theirs beside it meanwhile), so a file
    // that escapes it shows as a second entry there.
    const kestrel_test::ScopedTmpdir outer;
    const std::filesystem::path inner =
        outer.dir() / std::filesystem::u8path("tmp" + kWorldwideSuffix);
    std::filesystem::create_directory(inner);
    kestrel_test::setEnv(kestrel_test::kTempDirVariable, inner.u8string().c_str());
    const auto entriesOutside = [&] {
        const std::filesystem::directory_iterator entries(outer.dir());
        return std::distance(begin(entries), end(entries));
    };
    const std::pair<std::string, std::string> prefixes[] = {
        {"../x", ".._x"},
        {"C:\\x", "C__x"},
        {"NUL.", "_NUL."},
        {"<|>?*\"", "______"},
        {u8"\u00e9t\u00e9", u8"\u00e9t\u00e9"},
        {std::string(300, 'p'), std::string(64, 'p')}};
    for (const auto& [prefix, expected] : prefixes) {
        SCOPED_TRACE(prefix);
        KSDebugLog log(prefix.c_str(), false);
        // The name is UTF-8, and names the file on every system.
        const std::filesystem::path name = std::filesystem::u8path(log.getFileName());
        EXPECT_TRUE(std::filesystem::equivalent(name.parent_path(), inner));
        const std::string fileName = name.filename().u8string();
        EXPECT_EQ(fileName.substr(0, expected.size()), expected);
        EXPECT_LE(fileName.size(), expected.size() + 16);
    }
    EXPECT_EQ(entriesOutside(), 1);

    // A missing temporary directory is the file-system service's failure,
    // and reaches the caller as that service reported it.
    kestrel_test::setEnv(kestrel_test::kTempDirVariable, (inner / "missing").u8string().c_str());
    EXPECT_THROW(KSDebugLog(), std::filesystem::filesystem_error);
}

// The system's text, whatever its language, arrives as UTF-8 and is cut
// between characters.
TEST(KSDebugLogTest, SystemTextIsConvertedToUtf8Exactly) {
    using kestrel::detail::narrowSystemText;
    const wchar_t* const localized = L"Acc\u00e8s refus\u00e9 \u65e5\u672c \U0001F600.\r\n";
    EXPECT_EQ(narrowSystemText(localized, 1024),
              u8"Acc\u00e8s refus\u00e9 \u65e5\u672c \U0001F600.\r\n");
    EXPECT_EQ(narrowSystemText(localized, 5), "Acc");  // not half an è
    EXPECT_EQ(narrowSystemText(nullptr, 1024), "");
}

// Several threads share one log, as components do with theirs.
TEST(KSDebugLogTest, ConcurrentWritersEachWriteWholeRecords) {
    const kestrel_test::ScopedTmpdir tmpdir;
    std::string name;
    {
        KSDebugLog log;
        name = log.getFileName();
        boost::thread_group threads;
        for (int t = 0; t < 4; ++t) {
            threads.create_thread([&log, t] {
                for (int i = 0; i < 200; ++i)
                    log.writeString("writer %d record %d", t, i);
            });
        }
        threads.join_all();
    }
    std::ifstream file(std::filesystem::u8path(name));
    int records = 0;
    for (std::string line; std::getline(file, line);)
        records += line.find(" (thread: ") != std::string::npos &&
                   line.find(") writer ") != std::string::npos;
    EXPECT_EQ(records, 4 * 200);
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
    // Another program puts a directory in place of the new file, or the
    // name is opened as if the file were a directory.
    kestrel::detail::setFileOpenForTesting([](const char* name, const char* mode) {
        std::filesystem::remove(name);
        std::filesystem::create_directory(name);
        return std::fopen(name, mode);
    });
    EXPECT_EQ(openingFailure(),
              "ksdebuglog::fileOpen::cantopenfile ERROR: Unable to open the debug output file. " +
                  kestrel_test::systemText(kestrel_test::kOpenedDirectory));
    kestrel::detail::setFileOpenForTesting([](const char* name, const char* mode) {
        return std::fopen((std::string(name) + "/below").c_str(), mode);
    });
    EXPECT_EQ(openingFailure().rfind("ksdebuglog::fileOpen::cantopenfile ERROR: Unable to open", 0),
              0u);
    kestrel::detail::setFileOpenForTesting(nullptr);
    // The file the name service made for the log that failed is gone.
    const std::filesystem::directory_iterator files(tmpdir.dir());
    EXPECT_EQ(std::distance(begin(files), end(files)), 1);  // the directory put in its place

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
