#include "kestrel/debug_log.h"

#include <fl/filesystem.h>
#include <fl/i18n.h>

#include <algorithm>
#include <atomic>
#include <boost/thread/thread.hpp>
#include <cctype>
#include <cstdarg>
#include <cstdint>
#include <mutex>
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
    return replacement != nullptr ? replacement(name, mode) : platform::openFile(name, mode);
}

// Removes a file that the name service created for a log that is not going
// to exist, keeping the last error for the exception's text.
void removeCreatedFile(const ustring& name) {
    const platform::ErrorCode error = platform::GetLastError();
    platform::removeFile(name);
    platform::SetLastError(error);
}

// Writers on several threads share lastWriteTime. The object has no room for
// a lock of its own, so it takes one of a few process-wide locks, chosen by
// its address; each is held only for the assignment.
std::mutex& lastWriteLock(const void* log) {
    static std::mutex locks[16];
    return locks[(reinterpret_cast<std::uintptr_t>(log) / alignof(std::max_align_t)) % 16];
}

// Long enough for any sensible prefix, short enough that the name with its
// unique part stays within the systems' limits on one path component.
constexpr std::size_t kMaxPrefixUnits = 64;

bool isDeviceName(const ustring& stem) {
    static const char* const devices[] = {"CON", "PRN", "AUX", "NUL", "CONIN$", "CONOUT$"};
    std::string upper;
    for (const char16_t c : stem) {
        if (c > 0x7F) {
            return false;
        }
        upper += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    upper.erase(upper.find_last_not_of(' ') + 1);
    if (upper.size() == 4 && (upper.compare(0, 3, "COM") == 0 || upper.compare(0, 3, "LPT") == 0)) {
        return upper[3] >= '0' && upper[3] <= '9';
    }
    return std::any_of(std::begin(devices), std::end(devices),
                       [&](const char* device) { return upper == device; });
}

// The prefix as one name inside the temporary directory: separators, drive
// and stream colons and the characters Windows refuses in names become "_",
// so "../x", "/etc/x" or "C:x" cannot lead the file out of the directory; a
// Windows device name ("NUL.x" is the null device) gets a "_" in front; and
// an overlong prefix is cut (never inside a surrogate pair).
ustring confinedPrefix(ustring prefix) {
    static const ustring refused = u"/\\:*?\"<>|";
    for (char16_t& c : prefix) {
        if (c < 0x20 || refused.find(c) != ustring::npos) {
            c = u'_';
        }
    }
    if (prefix.size() > kMaxPrefixUnits) {
        std::size_t length = kMaxPrefixUnits;
        if (prefix[length - 1] >= 0xD800 && prefix[length - 1] <= 0xDBFF) {
            --length;
        }
        prefix.resize(length);
    }
    if (isDeviceName(prefix.substr(0, prefix.find(u'.')))) {
        prefix.insert(prefix.begin(), u'_');
    }
    return prefix;
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

std::string narrowSystemText(const wchar_t* text, std::size_t size) {
    if (text == nullptr || size == 0) {
        return std::string();
    }
    // Exactly, as UTF-8: the C runtime's "%ls" would use its locale, "C"
    // unless the host changed it, and mangle every accented letter.
    std::string narrow = fl::i18n::to_string(fl::i18n::to_ustring(std::wstring(text)));
    if (narrow.size() > size - 1) {
        std::size_t length = size - 1;
        while (length > 0 && (static_cast<unsigned char>(narrow[length]) & 0xC0) == 0x80) {
            --length;  // not inside a character
        }
        narrow.resize(length);
    }
    return narrow;
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
    {
        const std::lock_guard<std::mutex> lock(lastWriteLock(this));
        lastWriteTime = now;
    }

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
        removeCreatedFile(fl::i18n::to_ustring(fileName));
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
        removeCreatedFile(fl::i18n::to_ustring(fileName));
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
            confinedPrefix(fl::i18n::to_ustring(std::string(prefix != nullptr ? prefix : "VX")));
        const ustring directory = fl::filesystem::temp_directory_name();
        const ustring name = fl::filesystem::tmpnam(directory, prefixText, ustring());
        const fl::filesystem::codecvt_ustring_to_narrow_string narrow(true);
        const fl::i18n::converter<char, char16_t>& converter = narrow;
        fileName = converter.convert(name);
        if (fl::i18n::to_ustring(fileName) != name) {
            // The name holds units that UTF-8 cannot express (a Windows name
            // may hold a lone surrogate): its narrow form would name another
            // file, perhaps in another directory. Refuse it.
            fileName.clear();
            platform::SetLastError(platform::kNameNotConvertible);
            removeCreatedFile(name);
            throwWithErrorMsg("ksdebuglog::fileOpen::cantopenfile",
                              "ERROR: Unable to open the debug output file.");
        }
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
    std::string errorText;
    try {
        errorText = detail::narrowSystemText(systemText, ERR_MSG_LEN);
    } catch (...) {
        platform::LocalFree(systemText);
        throw;
    }
    platform::LocalFree(systemText);
    throw KSException(id, "%s %s", message, errorText.c_str());
}

}  // namespace kestrel
