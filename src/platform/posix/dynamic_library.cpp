// The Windows loader calls on top of dlopen. Windows looks for a DLL's
// dependencies in directories chosen per call; the POSIX dynamic loader has
// one fixed search. To honour the chosen directories, the dependencies found
// there (read from the library's DT_NEEDED entries) are loaded first, from
// there; the dynamic loader then finds them already loaded by their soname.
#include <dlfcn.h>
#include <link.h>
#include <unistd.h>

#include <atomic>
#include <boost/locale/encoding_utf.hpp>
#include <cerrno>
#include <list>
#include <mutex>
#include <string>
#include <vector>

#include "platform/dynamic_library.h"
#include "platform/posix/elf_dependencies.h"
#include "platform/posix/posix_error.h"

namespace kestrel {
namespace platform {

namespace {

// How deep dependencies of dependencies are followed.
constexpr int kMaxDependencyDepth = 8;

std::atomic<std::uint32_t> errorMode{0};

// The directories added with AddDllDirectory, process-wide and never
// removed. A list, so that each entry's address can serve as its cookie.
struct AddedDirectories {
    std::mutex lock;
    std::list<std::string> directories;  // guarded by lock
};

AddedDirectories& addedDirectories() {
    static AddedDirectories instance;
    return instance;
}

std::string nativePath(const wchar_t* text) {
    std::string path = boost::locale::conv::utf_to_utf<char>(text);
    for (char& c : path) {
        if (c == '\\') {
            c = '/';
        }
    }
    return path;
}

std::string directoryOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) {
        return {};
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string applicationDirectory() {
    char buffer[4096];
    const ssize_t length = ::readlink("/proc/self/exe", buffer, sizeof buffer - 1);
    return length > 0 ? directoryOf(std::string(buffer, static_cast<std::size_t>(length)))
                      : std::string();
}

ModuleHandle openLibrary(const std::string& path) {
    ::dlerror();
    ModuleHandle handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_GLOBAL);
    if (handle == nullptr) {
        posix::setLastLoaderError(::dlerror());
    }
    return handle;
}

// Loads, depth first, the dependencies of the library at path that are
// found in directories, and appends their handles to preloaded.
void preloadDependencies(const std::string& path, const std::vector<std::string>& directories,
                         std::vector<ModuleHandle>& preloaded, int depth) {
    if (depth > kMaxDependencyDepth) {
        return;
    }
    for (const std::string& name : posix::neededLibraries(path)) {
        if (name.find('/') != std::string::npos) {
            continue;
        }
        // A library of that name already in the process is the one used.
        if (ModuleHandle loaded = ::dlopen(name.c_str(), RTLD_NOW | RTLD_NOLOAD)) {
            ::dlclose(loaded);
            continue;
        }
        for (const std::string& directory : directories) {
            const std::string candidate = directory + "/" + name;
            if (::access(candidate.c_str(), F_OK) == 0) {
                preloadDependencies(candidate, directories, preloaded, depth + 1);
                if (ModuleHandle handle = ::dlopen(candidate.c_str(), RTLD_NOW | RTLD_GLOBAL)) {
                    preloaded.push_back(handle);
                }
                break;
            }
        }
    }
}

ModuleHandle loadWithDirectories(const std::string& path,
                                 const std::vector<std::string>& directories) {
    std::vector<ModuleHandle> preloaded;
    preloadDependencies(path, directories, preloaded, 0);
    ModuleHandle handle = openLibrary(path);
    // The library now holds its own references to what it uses; what it did
    // not take (it failed to load) is unloaded again.
    const int lastError = errno;
    for (auto it = preloaded.rbegin(); it != preloaded.rend(); ++it) {
        ::dlclose(*it);
    }
    errno = lastError;
    return handle;
}

}  // namespace

std::uint32_t SetErrorMode(std::uint32_t mode) {
    return errorMode.exchange(mode);
}

ModuleHandle LoadLibraryW(const wchar_t* fileName) {
    if (fileName == nullptr || *fileName == L'\0') {
        posix::setLastErrno(EINVAL);
        return nullptr;
    }
    const std::string path = nativePath(fileName);
    ModuleHandle handle = openLibrary(path);
    if (handle != nullptr || path.find('/') != std::string::npos) {
        return handle;
    }
    // A bare name: after the system's search, the program's directory and the
    // current directory, which the Windows search also covers.
    for (const std::string& directory : {applicationDirectory(), std::string(".")}) {
        if (::access((directory + "/" + path).c_str(), F_OK) == 0) {
            return openLibrary(directory + "/" + path);
        }
    }
    return nullptr;
}

ModuleHandle LoadLibraryExW(const wchar_t* fileName, void* reserved, std::uint32_t flags) {
    constexpr std::uint32_t searchFlags =
        kLoadLibrarySearchDllLoadDir | kLoadLibrarySearchApplicationDir |
        kLoadLibrarySearchUserDirs | kLoadLibrarySearchDefaultDirs;
    if (fileName == nullptr || *fileName == L'\0' || reserved != nullptr ||
        ((flags & kLoadWithAlteredSearchPath) != 0 && (flags & searchFlags) != 0)) {
        posix::setLastErrno(EINVAL);
        return nullptr;
    }
    const std::string path = nativePath(fileName);
    std::vector<std::string> directories;
    if ((flags & kLoadWithAlteredSearchPath) != 0) {
        if (!directoryOf(path).empty()) {
            directories.push_back(directoryOf(path));
        }
    }
    if ((flags & kLoadLibrarySearchDllLoadDir) != 0) {
        if (path.front() != '/') {
            posix::setLastErrno(EINVAL);
            return nullptr;
        }
        directories.push_back(directoryOf(path));
    }
    if ((flags & (kLoadLibrarySearchApplicationDir | kLoadLibrarySearchDefaultDirs)) != 0) {
        directories.push_back(applicationDirectory());
    }
    if ((flags & (kLoadLibrarySearchUserDirs | kLoadLibrarySearchDefaultDirs)) != 0) {
        AddedDirectories& added = addedDirectories();
        std::lock_guard<std::mutex> guard(added.lock);
        directories.insert(directories.end(), added.directories.begin(), added.directories.end());
    }
    return loadWithDirectories(path, directories);
}

DllDirectoryCookie AddDllDirectory(const wchar_t* directory) {
    const std::string path = directory != nullptr ? nativePath(directory) : std::string();
    if (path.empty() || path.front() != '/') {
        posix::setLastErrno(EINVAL);
        return nullptr;
    }
    AddedDirectories& added = addedDirectories();
    std::lock_guard<std::mutex> guard(added.lock);
    added.directories.push_back(path);
    return &added.directories.back();
}

void* GetProcAddress(ModuleHandle module, const char* name) {
    if (module == nullptr || name == nullptr) {
        posix::setLastErrno(EINVAL);
        return nullptr;
    }
    ::dlerror();
    void* address = ::dlsym(module, name);
    if (address == nullptr) {
        const char* text = ::dlerror();
        posix::setLastLoaderError(text != nullptr ? text : "symbol has a null address");
        return nullptr;
    }
    // dlsym also searches the library's dependencies; only the library's own
    // exports count, as on Windows.
    Dl_info info{};
    void* owner = nullptr;
    link_map* self = nullptr;
    if (::dladdr1(address, &info, &owner, RTLD_DL_LINKMAP) != 0 &&
        ::dlinfo(module, RTLD_DI_LINKMAP, &self) == 0 && owner != self) {
        posix::setLastLoaderError((std::string(name) + ": not exported by the library").c_str());
        return nullptr;
    }
    return address;
}

bool FreeLibrary(ModuleHandle module) {
    if (module == nullptr) {
        posix::setLastErrno(EINVAL);
        return false;
    }
    if (::dlclose(module) != 0) {
        posix::setLastLoaderError(::dlerror());
        return false;
    }
    return true;
}

}  // namespace platform
}  // namespace kestrel
