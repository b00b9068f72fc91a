// What the tests need to know or do that differs between operating systems,
// gathered in one place: environment variables, the loader's view of loaded
// libraries, system error codes and texts, and the debugger output.
#pragma once

#include <fl/i18n.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <optional>
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
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

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

// What the system's debugger output received while body ran, as an
// attached debugger sees it. Windows 10 raises the wide debug-string
// exception and, when no one takes it, the narrow one; Wine raises only the
// narrow one. A handler that sees the exceptions first takes the narrow one.
inline std::optional<std::string> debuggerOutputOf(const std::function<void()>& body) {
    static thread_local std::string* received = nullptr;
    std::string text;
    received = &text;
    PVOID handler = ::AddVectoredExceptionHandler(1, [](EXCEPTION_POINTERS* info) -> LONG {
        const EXCEPTION_RECORD& record = *info->ExceptionRecord;
        if (received == nullptr || record.ExceptionCode != DBG_PRINTEXCEPTION_C) {
            return EXCEPTION_CONTINUE_SEARCH;
        }
        *received += reinterpret_cast<const char*>(record.ExceptionInformation[1]);
        return EXCEPTION_CONTINUE_EXECUTION;
    });
    body();
    ::RemoveVectoredExceptionHandler(handler);
    received = nullptr;
    return text;
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

// What the system's debugger output received while body ran, as an
// attached debugger sees it: body runs in a child process that this process
// traces, and the child's standard error is collected. Nothing when the
// system does not allow tracing.
inline std::optional<std::string> debuggerOutputOf(const std::function<void()>& body) {
    std::FILE* output = std::tmpfile();
    if (output == nullptr) {
        return std::nullopt;
    }
    const pid_t child = ::fork();
    if (child == 0) {
        ::dup2(::fileno(output), STDERR_FILENO);
        const bool traced = ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0;
        if (traced) {
            body();
        }
        ::_exit(traced ? 0 : 1);
    }
    int status = 0;
    while (child > 0 && ::waitpid(child, &status, 0) == child && WIFSTOPPED(status)) {
        const auto signal = static_cast<long>(WSTOPSIG(status));
        ::ptrace(PTRACE_CONT, child, nullptr, reinterpret_cast<void*>(signal));
    }
    std::string text(4096, '\0');
    std::rewind(output);
    text.resize(std::fread(text.data(), 1, text.size(), output));
    std::fclose(output);
    if (child <= 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        return std::nullopt;
    }
    return text;
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
