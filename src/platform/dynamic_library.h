// Loading dynamic libraries, in the shape of the Windows loader calls that
// plugin loading is written against. Paths are wide text; a backslash is a
// directory separator on every system.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "core/test_seam.h"

namespace kestrel {
namespace platform {

using ModuleHandle = void*;
using DllDirectoryCookie = void*;

// SetErrorMode flags. POSIX shows no error dialogs, so they only record the
// caller's wish there.
constexpr std::uint32_t kSemFailCriticalErrors = 0x0001;
constexpr std::uint32_t kSemNoOpenFileErrorBox = 0x8000;

// LoadLibraryExW flags: where the dependencies of the library are looked for
// before the system's own search (on POSIX: RUNPATH, LD_LIBRARY_PATH, the
// loader cache and default directories, which always come last).
//   kLoadWithAlteredSearchPath: the library's own directory.
//   kLoadLibrarySearchDllLoadDir: the library's own directory (the path must
//     be absolute).
//   kLoadLibrarySearchApplicationDir: the directory of the program.
//   kLoadLibrarySearchUserDirs: the directories added with AddDllDirectory,
//     in the order they were added.
//   kLoadLibrarySearchDefaultDirs: the application directory, then the added
//     directories.
// kLoadWithAlteredSearchPath cannot be combined with the others. On POSIX a
// dependency found in one of these directories is loaded from there first,
// so that the dynamic loader then finds it already loaded; a dependency
// already in the process is used as it is.
constexpr std::uint32_t kLoadWithAlteredSearchPath = 0x8;
constexpr std::uint32_t kLoadLibrarySearchDllLoadDir = 0x100;
constexpr std::uint32_t kLoadLibrarySearchApplicationDir = 0x200;
constexpr std::uint32_t kLoadLibrarySearchUserDirs = 0x400;
constexpr std::uint32_t kLoadLibrarySearchDefaultDirs = 0x1000;

// path made absolute against the current directory; a path that is already
// absolute comes back unchanged (on POSIX one that starts with a slash or a
// backslash; on Windows one that starts with a drive and a separator, or
// with two separators). Empty when the current directory cannot be had. On
// POSIX nothing else about the path changes; on Windows a relative path
// becomes the system's full path name ("." and ".." resolved, backslashes).
std::wstring fullPath(const std::wstring& path);

// Sets the process-wide error mode; returns the previous one.
std::uint32_t SetErrorMode(std::uint32_t mode);

// Loads a library with its symbols resolved at once and made available to
// libraries loaded later (dlopen RTLD_NOW | RTLD_GLOBAL on POSIX). Each
// successful load must be paired with one FreeLibrary. Null on failure, with
// the reason in GetLastError().
ModuleHandle LoadLibraryW(const wchar_t* fileName);
// The same with the dependency search of flags; reserved must be null.
ModuleHandle LoadLibraryExW(const wchar_t* fileName, void* reserved, std::uint32_t flags);

// Adds an absolute directory to the process-wide list searched by
// kLoadLibrarySearchUserDirs. Adding it again adds it again. Null (and
// GetLastError()) when the path is not absolute.
DllDirectoryCookie AddDllDirectory(const wchar_t* directory);

// The address of the exported symbol name, or null.
void* GetProcAddress(ModuleHandle module, const char* name);

#if !defined(_WIN32)
// How many directories the calling thread's last LoadLibraryExW searched for
// the library's dependencies (each distinct directory counts once).
KESTREL_TEST_SEAM std::size_t lastSearchedDirectoryCount();
// How many files it inspected: the library and the dependencies it followed.
KESTREL_TEST_SEAM std::size_t lastInspectedFileCount();
#endif

// Releases one load of module; the library is unloaded with its last
// release. False on failure.
bool FreeLibrary(ModuleHandle module);

}  // namespace platform
}  // namespace kestrel
