// The Windows loader calls on top of dlopen. Windows looks for a DLL's
// dependencies in directories chosen per call; the POSIX dynamic loader has
// one fixed search. To honour the chosen directories, the dependencies found
// there (read from the library's DT_NEEDED entries) are loaded first, from
// there; the dynamic loader then finds them already loaded by their soname.
#include <dlfcn.h>
#include <link.h>
#include <unistd.h>

#include <sys/stat.h>

#include <cxxabi.h>
#include <atomic>
#include <boost/locale/encoding_utf.hpp>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <list>
#include <set>
#include <string>
#include <vector>

#include "core/annotated_mutex.h"
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
    detail::Mutex lock;
    std::list<std::string> directories KESTREL_GUARDED_BY(lock);
};

AddedDirectories& addedDirectories() {
    static AddedDirectories instance;
    return instance;
}

// The path as UTF-8 with slashes; false when the text is not valid UTF-32
// (a path that cannot be converted exactly is never turned into another).
bool nativePath(const wchar_t* text, std::string& path) {
    try {
        path = boost::locale::conv::utf_to_utf<char>(text, boost::locale::conv::stop);
    } catch (const boost::locale::conv::conversion_error&) {
        return false;
    }
    for (char& c : path) {
        if (c == '\\') {
            c = '/';
        }
    }
    return true;
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

// Ends the process: code run by the dynamic loader (a library's static
// initialisation) threw, or ended its thread, through dlopen. The loader's
// lock is still held and its lists are half updated, so no later load in any
// thread could succeed or even return; saying why and stopping at once is
// the only outcome that neither hangs nor corrupts.
[[noreturn]] void loaderCannotRecover(const std::string& path, const std::string& cause) {
    const std::string message = "kestrel: loading the library " + path + " failed: " + cause +
                                ". The dynamic loader cannot recover from this; the process "
                                "ends now.\n";
    const ssize_t ignored = ::write(STDERR_FILENO, message.data(), message.size());
    static_cast<void>(ignored);
    std::abort();
}

// dlopen through a pointer the compiler cannot see through: the declaration
// promises no exceptions, and the handlers below must not be optimised away.
void* (*volatile dlopenCall)(const char*, int) = &::dlopen;

ModuleHandle guardedOpen(const std::string& path, int flags) {
    try {
        return dlopenCall(path.c_str(), flags);
    } catch (const abi::__forced_unwind&) {
        loaderCannotRecover(path, "its initialisation ended the thread");
    } catch (const std::exception& e) {
        loaderCannotRecover(path,
                            std::string("its initialisation threw an exception: ") + e.what());
    } catch (...) {
        loaderCannotRecover(path, "its initialisation threw an exception of unknown type");
    }
}

// What the calling thread's last search looked at: directories, and files
// inspected (the library and its dependencies).
thread_local std::size_t searchedDirectories = 0;
thread_local std::size_t inspectedFiles = 0;

int inspect(const std::string& path, posix::ElfImage& image) {
    ++inspectedFiles;
    return posix::inspectElfFile(path, image);
}

// Inspects the file at path for the loader; false, with the last error set,
// when it is missing or must not be handed to the loader.
bool inspectForLoading(const std::string& path, posix::ElfImage& image) {
    const int error = inspect(path, image);
    if (error == ENOENT || error == ENOTDIR) {
        posix::setLastErrno(error);
        return false;
    }
    if (!image.loadable) {
        posix::setLastLoaderError((path + ": " + image.problem).c_str());
        return false;
    }
    return true;
}

ModuleHandle openInspected(const std::string& path) {
    ::dlerror();
    ModuleHandle handle = guardedOpen(path, RTLD_NOW | RTLD_GLOBAL);
    if (handle == nullptr) {
        posix::setLastLoaderError(::dlerror());
    }
    return handle;
}

// Loads the library at path; a path with a directory is inspected first (a
// bare name is left to the loader's own search).
ModuleHandle openLibrary(const std::string& path) {
    posix::ElfImage image;
    if (path.find('/') != std::string::npos && !inspectForLoading(path, image)) {
        return nullptr;
    }
    return openInspected(path);
}

// Loads, depth first, the dependencies in needed that are found in
// directories, and appends their handles to preloaded. Each name is followed
// once per load, so libraries that need each other cost linear time.
void preloadDependencies(const std::vector<std::string>& needed,
                         const std::vector<std::string>& directories,
                         std::vector<ModuleHandle>& preloaded, std::set<std::string>& followed,
                         int depth) {
    if (depth > kMaxDependencyDepth) {
        return;
    }
    for (const std::string& name : needed) {
        if (name.find('/') != std::string::npos || !followed.insert(name).second) {
            continue;
        }
        // A library of that name already in the process is the one used.
        if (ModuleHandle loaded = guardedOpen(name, RTLD_NOW | RTLD_NOLOAD)) {
            ::dlclose(loaded);
            continue;
        }
        for (const std::string& directory : directories) {
            const std::string candidate = directory + "/" + name;
            posix::ElfImage image;
            const int error = inspect(candidate, image);
            if (error == ENOENT || error == ENOTDIR) {
                continue;
            }
            // The first file of that name is the one; one that cannot be
            // loaded is not replaced by a later one.
            if (image.loadable) {
                preloadDependencies(image.needed, directories, preloaded, followed, depth + 1);
                if (ModuleHandle handle = guardedOpen(candidate, RTLD_NOW | RTLD_GLOBAL)) {
                    preloaded.push_back(handle);
                }
            }
            break;
        }
    }
}

ModuleHandle loadWithDirectories(const std::string& path,
                                 const std::vector<std::string>& directories) {
    posix::ElfImage image;
    if (!inspectForLoading(path, image)) {
        return nullptr;
    }
    std::vector<ModuleHandle> preloaded;
    std::set<std::string> followed;
    preloadDependencies(image.needed, directories, preloaded, followed, 0);
    ModuleHandle handle = openInspected(path);
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

std::wstring fullPath(const std::wstring& path) {
    if (!path.empty() && (path.front() == L'/' || path.front() == L'\\')) {
        return path;
    }
    std::string directory(256, '\0');
    while (::getcwd(&directory[0], directory.size()) == nullptr) {
        if (errno != ERANGE) {
            return {};
        }
        directory.resize(directory.size() * 2);
    }
    directory.resize(std::strlen(directory.c_str()));
    std::wstring full;
    try {
        full = boost::locale::conv::utf_to_utf<wchar_t>(directory, boost::locale::conv::stop);
    } catch (const boost::locale::conv::conversion_error&) {
        return {};
    }
    if (full.back() != L'/') {
        full += L'/';
    }
    return full + path;
}

std::uint32_t SetErrorMode(std::uint32_t mode) {
    return errorMode.exchange(mode);
}

ModuleHandle LoadLibraryW(const wchar_t* fileName) {
    if (fileName == nullptr || *fileName == L'\0') {
        posix::setLastErrno(EINVAL);
        return nullptr;
    }
    std::string path;
    if (!nativePath(fileName, path)) {
        posix::setLastErrno(EINVAL);
        return nullptr;
    }
    ModuleHandle handle = openLibrary(path);
    if (handle != nullptr || path.find('/') != std::string::npos) {
        return handle;
    }
    // A bare name: after the system's search, the program's directory and the
    // current directory, which the Windows search also covers.
    for (const std::string& directory : {applicationDirectory(), std::string(".")}) {
        struct stat status {};
        if (::stat((directory + "/" + path).c_str(), &status) == 0) {
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
    std::string path;
    if (!nativePath(fileName, path)) {
        posix::setLastErrno(EINVAL);
        return nullptr;
    }
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
        const detail::ScopedLock<detail::Mutex> guard(added.lock);
        directories.insert(directories.end(), added.directories.begin(), added.directories.end());
    }
    // A directory named twice (AddDllDirectory adds it again each time) is
    // searched once, where it first appears.
    std::vector<std::string> distinct;
    std::set<std::string> seen;
    for (std::string& directory : directories) {
        if (seen.insert(directory).second) {
            distinct.push_back(std::move(directory));
        }
    }
    searchedDirectories = distinct.size();
    inspectedFiles = 0;
    return loadWithDirectories(path, distinct);
}

DllDirectoryCookie AddDllDirectory(const wchar_t* directory) {
    std::string path;
    if (directory == nullptr || !nativePath(directory, path) || path.empty() ||
        path.front() != '/') {
        posix::setLastErrno(EINVAL);
        return nullptr;
    }
    AddedDirectories& added = addedDirectories();
    const detail::ScopedLock<detail::Mutex> guard(added.lock);
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

std::size_t lastSearchedDirectoryCount() {
    return searchedDirectories;
}

std::size_t lastInspectedFileCount() {
    return inspectedFiles;
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
