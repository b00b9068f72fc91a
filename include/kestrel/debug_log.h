// KSDebugLog writes time-stamped, thread-tagged diagnostic records to a file
// of its own in the temporary directory, to the debugger output, or to both.
// Create one object per component, write printf-style lines through it and
// destroy it to close the file. For channel-based diagnostics that a host
// routes and filters, use the foundation services' diagnostic channels.
//
// Record format: "%f (thread: %s) %s\n" - the current time in seconds since
// 1970-01-01 00:00:00 UTC with six decimals, the writing thread's identifier
// in lower-case hexadecimal (or "{Not-any-thread}"), the caller's text (at
// most 2047 characters) and a line feed. A file begins with the banner
// record "VELOX Debug Output file." followed by two more line feeds.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "kestrel/export.h"
#include "kestrel/time.h"

namespace kestrel {

// A debug-output file and/or the debugger output.
//
// Thread safety: writeString may be called from several threads at once; the
//   C runtime writes each record to the file in one piece. Construction and
//   destruction are not synchronised with writes.
// Lifetime: a file mode opens the file at construction (the name comes from
//   the foundation services: the temporary directory, the prefix and a unique
//   part) and closes it at destruction, which also flushes a buffered stream.
//   The file is always in the temporary directory: the prefix is a name, not
//   a path (separators, colons and characters Windows refuses in names become
//   "_", a Windows device name gets a "_" in front, and it is cut to 64
//   characters). If the file cannot be opened, the empty file made for it is
//   removed.
// Errors: the constructor throws KSException "ksdebuglog:fileopen::accessDenied"
//   when the foundation services are refused access while naming the file,
//   and "ksdebuglog::fileOpen::cantopenfile" when the file cannot be opened;
//   the message ends with a blank and the system's text for the error, as
//   UTF-8. A name that has no exact UTF-8 form is refused as "cantopenfile".
//   Other exceptions of the foundation services (a missing temporary
//   directory: std::filesystem::filesystem_error) pass through. Writes never throw
//   and failing writes are not reported.
class KESTREL_API KSDebugLog {
  public:
    // Where records go.
    enum LoggingMode : std::int32_t {
        LogToFile = 0,             // a file, and lines go there
        LogToDebugger = 1,         // no file; lines go to the debugger output
        LogToFileAndDebugger = 2,  // a file; lines go to the debugger, then the file
    };                             // any other value behaves as LogToFile

    // prefix: start of the file name, "VX" when null. buffered false makes
    // every record reach the file as soon as writeString returns. enabled
    // false: no file, and every write returns false.
    KSDebugLog(const char* prefix = nullptr, bool buffered = true, bool enabled = true,
               LoggingMode mode = LogToFile);
    ~KSDebugLog();
    KSDebugLog(const KSDebugLog&) = delete;
    KSDebugLog& operator=(const KSDebugLog&) = delete;

    // Writes one record; true when it went to at least one destination.
    bool writeString(const char* format, ...) KESTREL_PRINTF_FORMAT(2, 3);

    // The file's full name as UTF-8 (on Windows too: convert it to UTF-16
    // for the system's calls); empty when no file was opened.
    std::string getFileName();

  private:
    static const int ERR_MSG_LEN = 1024;

    void debugOutputFileOpen(const char* prefix);
    void debugOutputFileClose();
    void generateFileName(const char* const prefix);
    [[noreturn]] void throwWithErrorMsg(const char* id, const char* message);

    std::FILE* stream;  // null when no file is open
    bool buffered;
    bool enabled;
    LoggingMode mode;
    std::string fileName;
    Timestamp lastWriteTime;
};

}  // namespace kestrel
