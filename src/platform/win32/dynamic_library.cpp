// Windows: the loader calls themselves. The flags of this layer are the
// system's own values.
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>

#include "platform/dynamic_library.h"

namespace kestrel {
namespace platform {

static_assert(kSemFailCriticalErrors == SEM_FAILCRITICALERRORS &&
                  kSemNoOpenFileErrorBox == SEM_NOOPENFILEERRORBOX,
              "error-mode flags differ from the system's");
static_assert(kLoadWithAlteredSearchPath == LOAD_WITH_ALTERED_SEARCH_PATH &&
                  kLoadLibrarySearchDllLoadDir == LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR &&
                  kLoadLibrarySearchApplicationDir == LOAD_LIBRARY_SEARCH_APPLICATION_DIR &&
                  kLoadLibrarySearchUserDirs == LOAD_LIBRARY_SEARCH_USER_DIRS &&
                  kLoadLibrarySearchDefaultDirs == LOAD_LIBRARY_SEARCH_DEFAULT_DIRS,
              "loader flags differ from the system's");

std::wstring fullPath(const std::wstring& path) {
    // "C:\x", "C:/x" and "\\server\share" name one file wherever the process
    // is; "x", "C:x" and "\x" depend on its current directory or drive.
    const auto separator = [](wchar_t c) { return c == L'\\' || c == L'/'; };
    if ((path.size() >= 2 && separator(path[0]) && separator(path[1])) ||
        (path.size() >= 3 && path[1] == L':' && separator(path[2]))) {
        return path;
    }
    std::wstring full(MAX_PATH, L'\0');
    for (;;) {
        const DWORD length =
            ::GetFullPathNameW(path.c_str(), static_cast<DWORD>(full.size()), &full[0], nullptr);
        if (length == 0) {
            return {};
        }
        if (length < full.size()) {
            full.resize(length);
            return full;
        }
        full.resize(length);
    }
}

std::uint32_t SetErrorMode(std::uint32_t mode) {
    return ::SetErrorMode(mode);
}

namespace {

// Ends the process: a library's initialisation threw through the system
// loader and the exception reached us, past the loader's own frames and with
// its lock in whatever state they left it. Saying why and stopping at once
// is the only outcome that neither hangs nor corrupts. (The loader normally
// stops such an exception itself and fails the load.)
[[noreturn]] void loaderCannotRecover(const wchar_t* fileName, const char* cause) {
    std::string name = "(null)";
    if (fileName != nullptr) {
        const int size =
            ::WideCharToMultiByte(CP_UTF8, 0, fileName, -1, nullptr, 0, nullptr, nullptr);
        name.assign(size > 0 ? static_cast<std::size_t>(size) : 1, '\0');
        ::WideCharToMultiByte(CP_UTF8, 0, fileName, -1, &name[0], size, nullptr, nullptr);
        name.resize(std::strlen(name.c_str()));
    }
    std::fprintf(stderr,
                 "kestrel: loading the library %s failed: %s. The system loader cannot recover "
                 "from this; the process ends now.\n",
                 name.c_str(), cause);
    std::fflush(stderr);
    std::abort();
}

template <typename Load>
ModuleHandle guardedLoad(const wchar_t* fileName, Load load) {
    try {
        return load();
    } catch (const std::exception& e) {
        const std::string cause = std::string("its initialisation threw an exception: ") + e.what();
        loaderCannotRecover(fileName, cause.c_str());
    } catch (...) {
        loaderCannotRecover(fileName, "its initialisation threw an exception of unknown type");
    }
}

}  // namespace

ModuleHandle LoadLibraryW(const wchar_t* fileName) {
    return guardedLoad(fileName, [&] { return ::LoadLibraryW(fileName); });
}

ModuleHandle LoadLibraryExW(const wchar_t* fileName, void* reserved, std::uint32_t flags) {
    return guardedLoad(
        fileName, [&] { return ::LoadLibraryExW(fileName, static_cast<HANDLE>(reserved), flags); });
}

DllDirectoryCookie AddDllDirectory(const wchar_t* directory) {
    return ::AddDllDirectory(directory);
}

void* GetProcAddress(ModuleHandle module, const char* name) {
    const FARPROC address = ::GetProcAddress(static_cast<HMODULE>(module), name);
    // An exported function's address, handed on as an untyped address.
    void* untyped = nullptr;
    static_assert(sizeof untyped == sizeof address, "code and data addresses differ in size");
    std::memcpy(&untyped, &address, sizeof untyped);
    return untyped;
}

bool FreeLibrary(ModuleHandle module) {
    return ::FreeLibrary(static_cast<HMODULE>(module)) != FALSE;
}

}  // namespace platform
}  // namespace kestrel
