// Inspecting a library file before the dynamic loader sees it (internal to
// posix/): only regular files are opened, every count, size and offset the
// file gives is checked against its real size before anything is allocated
// or read, and the loaded segments must lie within the file (the loader maps
// them, and touching a page past the end of a file kills the process).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace kestrel {
namespace platform {
namespace posix {

struct ElfImage {
    // The file is a native-class ELF file whose loaded segments and dynamic
    // section lie within it; when false, problem says why.
    bool loadable = false;
    std::string problem;
    // The DT_NEEDED entries, in file order (only for a loadable file).
    std::vector<std::string> needed;
};

// Reads size bytes at offset into out; false when they cannot all be read.
using ReadAt = std::function<bool(std::uint64_t offset, void* out, std::size_t size)>;

// Inspects an image of fileSize bytes read through readAt.
ElfImage inspectElfImage(std::uint64_t fileSize, const ReadAt& readAt);

// Opens path for reading, only when it is a regular file and without ever
// blocking (a FIFO fails). The descriptor (close-on-exec) and the size, or
// -1 with errno set (EINVAL for a file that is not a regular one).
int openRegularFile(const std::string& path, std::uint64_t& size);

// Inspects the file at path. 0, or the errno value that kept the file from
// being opened (ENOENT when nothing is there).
int inspectElfFile(const std::string& path, ElfImage& image);

}  // namespace posix
}  // namespace platform
}  // namespace kestrel
