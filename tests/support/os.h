// What the tests need to know or do that differs between operating systems,
// gathered in one place: environment variables, the loader's view of loaded
// libraries, system error codes and texts.
#pragma once

#include <fl/i18n.h>

#include <algorithm>
#include <cstdlib>
#include <string>

#include "platform/system_error.h"

#if defined(_WIN32)
#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>
#else
#include <dlfcn.h>

#include <cerrno>
#include <cstring>
#endif

namespace kestrel_test {

using kestrel::platform::ErrorCode;

#if defined(_WIN32)
// The variable that names the directory for temporary files (GetTempPathW
// reads it first).
inline const char* const kTempDirVariable = "TMP";
// What the C runtime leaves behind when a directory is opened as a file.
constexpr ErrorCode kOpenedDirectory = ERROR_ACCESS_DENIED;
// What a directory that refuses new files may answer.
constexpr ErrorCode kCreationRefused[] = {ERROR_ACCESS_DENIED, ERROR_WRITE_PROTECT};

// value is UTF-8. Both the C runtime's copy (getenv, TZ) and the process's
// (Win32 calls) change; text beyond ASCII goes through the wide call, as the
// narrow one would read it in the ANSI code page.
inline void setEnv(const char* name, const char* value) {
    const std::string text(value);
    if (std::all_of(text.begin(), text.end(), [](char c) { return (c & 0x80) == 0; })) {
        ::_putenv_s(name, value);
    } else {
        const std::wstring wideName = fl::i18n::to_wstring(fl::i18n::to_ustring(std::string(name)));
        ::_wputenv_s(wideName.c_str(), fl::i18n::to_wstring(fl::i18n::to_ustring(text)).c_str());
    }
}
inline void unsetEnv(const char* name) {
    ::_putenv_s(name, "");
}

// The system's text for code in the user's language; empty when it has none.
inline std::string systemText(ErrorCode code) {
    wchar_t* text = nullptr;
    ::FormatMessageW(
        FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
        nullptr, code, LANG_USER_DEFAULT, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
    const std::string narrow =
        text != nullptr ? fl::i18n::to_string(fl::i18n::to_ustring(std::wstring(text))) : "";
    ::LocalFree(text);
    return narrow;
}

// True when the library at path is loaded in the process.
inline bool isLibraryLoaded(const std::string& path) {
    std::wstring wide = fl::i18n::to_wstring(fl::i18n::to_ustring(path));
    for (wchar_t& c : wide) {
        c = c == L'/' ? L'\\' : c;
    }
    return ::GetModuleHandleW(wide.c_str()) != nullptr;
}
#else
inline const char* const kTempDirVariable = "TMPDIR";
constexpr ErrorCode kOpenedDirectory = EISDIR;
constexpr ErrorCode kCreationRefused[] = {EACCES, EPERM, EROFS};

inline void setEnv(const char* name, const char* value) {
    ::setenv(name, value, 1);
}
inline void unsetEnv(const char* name) {
    ::unsetenv(name);
}

// The C library's text for an errno value.
inline std::string systemText(ErrorCode code) {
    return std::strerror(static_cast<int>(code));
}

inline bool isLibraryLoaded(const std::string& path) {
    void* handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (handle != nullptr) {
        ::dlclose(handle);
    }
    return handle != nullptr;
}
#endif

}  // namespace kestrel_test
