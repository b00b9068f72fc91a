// Windows: names are converted from UTF-8 exactly and handed to the wide
// calls of the system and the C runtime.
#include <windows.h>

#include <cstdio>
#include <string>

#include "platform/files.h"

namespace kestrel {
namespace platform {

const std::uint32_t kNameNotConvertible = ERROR_NO_UNICODE_TRANSLATION;

namespace {

// The UTF-16 form of text, or false (last error ERROR_NO_UNICODE_TRANSLATION)
// when text is not valid UTF-8.
bool toWide(const char* text, std::wstring& wide) {
    const int length = ::MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text, -1, nullptr, 0);
    if (length <= 0) {
        return false;
    }
    wide.assign(static_cast<std::size_t>(length), L'\0');
    if (::MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text, -1, &wide[0], length) !=
        length) {
        return false;
    }
    wide.resize(static_cast<std::size_t>(length) - 1);  // the terminator
    return true;
}

}  // namespace

std::FILE* openFile(const char* name, const char* mode) {
    std::wstring wideName;
    std::wstring wideMode;
    if (!toWide(name, wideName) || !toWide(mode, wideMode)) {
        return nullptr;
    }
    ::SetLastError(ERROR_SUCCESS);
    std::FILE* file = ::_wfopen(wideName.c_str(), wideMode.c_str());
    if (file == nullptr && ::GetLastError() == ERROR_SUCCESS) {
        // The C runtime refused without asking the system (a bad mode).
        ::SetLastError(ERROR_INVALID_PARAMETER);
    }
    return file;
}

bool removeFile(const std::u16string& name) {
    // A ustring has the system's own units.
    const std::wstring wideName(name.begin(), name.end());
    return ::DeleteFileW(wideName.c_str()) != FALSE;
}

}  // namespace platform
}  // namespace kestrel
