// What the tests need to know or do that differs between operating systems,
// gathered in one place: environment variables, the loader's view of loaded
// libraries, and the system error codes that the platform layer reports.
#pragma once

#include <fl/i18n.h>

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
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/posix/posix_error.h"
#endif

namespace kestrel_test {

using kestrel::platform::ErrorCode;

#if defined(_WIN32)
// The variable that names the directory for temporary files (GetTempPathW
// reads it first).
inline const char* const kTempDirVariable = "TMP";

// Codes the system loader leaves behind.
constexpr ErrorCode kModuleNotFound = ERROR_MOD_NOT_FOUND;        // 126
constexpr ErrorCode kProcedureNotFound = ERROR_PROC_NOT_FOUND;    // 127
constexpr ErrorCode kInvalidParameter = ERROR_INVALID_PARAMETER;  // 87
// What the C runtime leaves behind when a directory is opened as a file.
constexpr ErrorCode kOpenedDirectory = ERROR_ACCESS_DENIED;
// What a directory that refuses new files may answer.
constexpr ErrorCode kCreationRefused[] = {ERROR_ACCESS_DENIED, ERROR_WRITE_PROTECT};

inline void setEnv(const char* name, const char* value) {
    // Both the C runtime's copy (getenv, TZ) and the process's (Win32 calls).
    ::_putenv_s(name, value);
}
inline void unsetEnv(const char* name) {
    ::_putenv_s(name, "");
}
inline unsigned long processId() {
    return ::GetCurrentProcessId();
}

// The calling thread's last error, as the platform layer reports it.
inline ErrorCode lastError() {
    return ::GetLastError();
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

// True under Wine, whose C runtime differs from Windows' in details that
// some tests name.
inline bool runningUnderWine() {
    const HMODULE ntdll = ::GetModuleHandleW(L"ntdll.dll");
    return ntdll != nullptr && ::GetProcAddress(ntdll, "wine_get_version") != nullptr;
}

// What the system's debugger output received while body ran, as an
// attached debugger sees it. Windows 10 raises the wide debug-string
// exception and, when no one takes it, the narrow one; Wine raises only the
// narrow one. A handler that sees the exceptions first takes either.
inline std::optional<std::string> debuggerOutputOf(const std::function<void()>& body) {
    static thread_local std::string* received = nullptr;
    std::string text;
    received = &text;
    PVOID handler = ::AddVectoredExceptionHandler(1, [](EXCEPTION_POINTERS* info) -> LONG {
        const EXCEPTION_RECORD& record = *info->ExceptionRecord;
        if (received == nullptr || record.NumberParameters < 2) {
            return EXCEPTION_CONTINUE_SEARCH;
        }
        if (record.ExceptionCode == DBG_PRINTEXCEPTION_WIDE_C) {
            const auto* wide = reinterpret_cast<const wchar_t*>(record.ExceptionInformation[1]);
            *received += fl::i18n::to_string(fl::i18n::to_ustring(std::wstring(wide)));
            return EXCEPTION_CONTINUE_EXECUTION;
        }
        if (record.ExceptionCode == DBG_PRINTEXCEPTION_C) {
            *received += reinterpret_cast<const char*>(record.ExceptionInformation[1]);
            return EXCEPTION_CONTINUE_EXECUTION;
        }
        return EXCEPTION_CONTINUE_SEARCH;
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

// The dynamic loader reports every failure the same way, with its own text.
constexpr ErrorCode kModuleNotFound = kestrel::platform::posix::kDynamicLoaderError;
constexpr ErrorCode kProcedureNotFound = kestrel::platform::posix::kDynamicLoaderError;
constexpr ErrorCode kInvalidParameter = EINVAL;
constexpr ErrorCode kOpenedDirectory = EISDIR;
constexpr ErrorCode kCreationRefused[] = {EACCES, EPERM, EROFS};

inline void setEnv(const char* name, const char* value) {
    ::setenv(name, value, 1);
}
inline void unsetEnv(const char* name) {
    ::unsetenv(name);
}
inline unsigned long processId() {
    return static_cast<unsigned long>(::getpid());
}

inline ErrorCode lastError() {
    return static_cast<ErrorCode>(errno);
}

// The C library's text for an errno value.
inline std::string systemText(ErrorCode code) {
    return std::strerror(static_cast<int>(code));
}

inline bool runningUnderWine() {
    return false;
}

// What the system's debugger output received while body ran, as an
// attached debugger sees it: body runs in a child process that this process
// traces, and the child's standard error is collected. Nothing when the
// system does not allow tracing.
inline std::optional<std::string> debuggerOutputOf(const std::function<void()>& body) {
    int pipeEnds[2];
    if (::pipe(pipeEnds) != 0) {
        return std::nullopt;
    }
    const pid_t child = ::fork();
    if (child == 0) {
        ::dup2(pipeEnds[1], STDERR_FILENO);
        ::close(pipeEnds[0]);
        const bool traced = ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0;
        ::raise(SIGSTOP);  // the tracer sees the child from here on
        if (traced) {
            body();
        }
        std::fflush(stderr);
        ::_exit(traced ? 0 : 1);
    }
    ::close(pipeEnds[1]);
    int status = 0;
    while (child > 0 && ::waitpid(child, &status, 0) == child && WIFSTOPPED(status)) {
        const int signal = WSTOPSIG(status) == SIGSTOP ? 0 : WSTOPSIG(status);
        ::ptrace(PTRACE_CONT, child, nullptr, reinterpret_cast<void*>(static_cast<long>(signal)));
    }
    std::string text;
    char buffer[4096];
    for (ssize_t n; (n = ::read(pipeEnds[0], buffer, sizeof buffer)) > 0;) {
        text.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(pipeEnds[0]);
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
