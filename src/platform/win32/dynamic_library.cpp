// Windows: the loader calls themselves. The flags of this layer are the
// system's own values.
#include <windows.h>

#include <cstring>

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

ModuleHandle LoadLibraryW(const wchar_t* fileName) {
    return ::LoadLibraryW(fileName);
}

ModuleHandle LoadLibraryExW(const wchar_t* fileName, void* reserved, std::uint32_t flags) {
    return ::LoadLibraryExW(fileName, static_cast<HANDLE>(reserved), flags);
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
