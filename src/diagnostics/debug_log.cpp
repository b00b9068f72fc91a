#include "kestrel/debug_log.h"

#include <fl/filesystem.h>
#include <fl/i18n.h>

#include <atomic>
#include <boost/thread/thread.hpp>
#include <cstdarg>
#include <sstream>

#include "diagnostics/debug_log_internal.h"
#include "kestrel/exception.h"
#include "kestrel/ustring.h"
#include "platform/platform.h"

namespace kestrel {

namespace {

constexpr std::size_t kTextSize = 2048;
constexpr std::size_t kRecordSize = kTextSize + 50;

std::atomic<detail::DebuggerOutputFcn> debuggerOutput{nullptr};
std::atomic<detail::FileOpenFcn> fileOpen{nullptr};

void sendToDebugger(const char* record) {
    const std::wstring text = fl::i18n::to_wstring(fl::i18n::to_ustring(std::string(record)));
    const detail::DebuggerOutputFcn replacement = debuggerOutput.load();
    if (replacement != nullptr) {
        replacement(text.c_str());
    } else {
        platform::OutputDebugStringW(text.c_str());
    }
}

std::FILE* openFile(const char* name, const char* mode) {
    const detail::FileOpenFcn replacement = fileOpen.load();
    return replacement != nullptr ? replacement(name, mode) : std::fopen(name, mode);
}

// Boost.Thread writes the identifier in hexadecimal, or "{Not-any-thread}".
std::string threadText() {
    std::ostringstream text;
    text << boost::this_thread::get_id();
    return text.str();
}

}  // namespace

namespace detail {

void setDebuggerOutputForTesting(DebuggerOutputFcn fcn) {
    debuggerOutput.store(fcn);
}

void setFileOpenForTesting(FileOpenFcn fcn) {
    fileOpen.store(fcn);
}

}  // namespace detail

KSDebugLog::KSDebugLog(const char* prefix, bool isBuffered, bool isEnabled, LoggingMode loggingMode)
    : stream(nullptr), buffered(isBuffered), enabled(isEnabled), mode(loggingMode) {
    debugOutputFileOpen(prefix);
}

KSDebugLog::~KSDebugLog() {
    debugOutputFileClose();
}

bool KSDebugLog::writeString(const char* format, ...) {
    if (!enabled) {
        return false;
    }
    const std::string thread = threadText();
    const Timestamp now;
    lastWriteTime = now;

    char text[kTextSize] = {};
    if (format != nullptr) {
        va_list args;
        va_start(args, format);
        if (std::vsnprintf(text, sizeof text, format, args) < 0) {
            text[0] = '\0';
        }
        va_end(args);
    }
    char record[kRecordSize];
    std::snprintf(record, sizeof record, "%f (thread: %s) %s\n", now.getTime(), thread.c_str(),
                  text);

    bool written = false;
    if (mode == LogToDebugger || mode == LogToFileAndDebugger) {
        sendToDebugger(record);
        written = true;
    }
    if (stream != nullptr) {
        std::fprintf(stream, "%s", record);
        written = true;
    }
    return written;
}

std::string KSDebugLog::getFileName() {
    return fileName;
}

void KSDebugLog::debugOutputFileOpen(const char* prefix) {
    if (!enabled || mode == LogToDebugger) {
        return;
    }
    generateFileName(prefix);
    stream = openFile(fileName.c_str(), "w");
    if (stream == nullptr) {
        throwWithErrorMsg("ksdebuglog::fileOpen::cantopenfile",
                          "ERROR: Unable to open the debug output file.");
    }
    if (!buffered) {
        std::setvbuf(stream, nullptr, _IONBF, 0);
    }
    try {
        writeString("VELOX Debug Output file.\n\n");
    } catch (...) {
        debugOutputFileClose();  // no destructor runs for a failed constructor
        throw;
    }
}

void KSDebugLog::debugOutputFileClose() {
    if (stream != nullptr) {
        std::fclose(stream);
        stream = nullptr;
    }
}

void KSDebugLog::generateFileName(const char* const prefix) {
    try {
        const ustring prefixText =
            fl::i18n::to_ustring(std::string(prefix != nullptr ? prefix : "VX"));
        const ustring directory = fl::filesystem::temp_directory_name();
        const ustring name = fl::filesystem::tmpnam(directory, prefixText, ustring());
        const fl::filesystem::codecvt_ustring_to_narrow_string narrow(true);
        const fl::i18n::converter<char, char16_t>& converter = narrow;
        fileName = converter.convert(name);
    } catch (const fl::filesystem::AccessDenied& denied) {
        // The services report the system's error with the exception; make it
        // the last error again, whatever ran while the exception travelled.
        platform::SetLastError(static_cast<platform::ErrorCode>(denied.code().value()));
        throwWithErrorMsg("ksdebuglog:fileopen::accessDenied",
                          "ERROR: Access denied creating temporary file name");
    }
}

void KSDebugLog::throwWithErrorMsg(const char* id, const char* message) {
    const platform::ErrorCode code = platform::GetLastError();
    wchar_t* systemText = nullptr;
    platform::FormatMessageW(platform::kFormatMessageAllocateBuffer |
                                 platform::kFormatMessageFromSystem |
                                 platform::kFormatMessageIgnoreInserts,
                             nullptr, code, platform::kLanguageUserDefault,
                             reinterpret_cast<wchar_t*>(&systemText), 0, nullptr);
    char errorText[ERR_MSG_LEN];
    if (std::snprintf(errorText, sizeof errorText, "%ls",
                      systemText != nullptr ? systemText : L"") < 0) {
        // The C runtime's locale cannot express the text: convert it here.
        const std::string converted =
            fl::i18n::to_string(fl::i18n::to_ustring(std::wstring(systemText)));
        std::snprintf(errorText, sizeof errorText, "%s", converted.c_str());
    }
    platform::LocalFree(systemText);
    throw KSException(id, "%s %s", message, errorText);
}

}  // namespace kestrel
