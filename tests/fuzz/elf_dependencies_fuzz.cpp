// The ELF inspection that runs before a library reaches the dynamic loader:
// it asks only for bytes within the file, allocates nothing the file's size
// does not bound, and calls a file loadable only when every loaded segment
// and the dynamic section lie within it.
#include <elf.h>
#include <link.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "fuzz_check.h"
#include "platform/posix/elf_dependencies.h"

using kestrel::platform::posix::ElfImage;
using kestrel::platform::posix::inspectElfImage;

namespace {

bool within(std::uint64_t offset, std::uint64_t size, std::uint64_t limit) {
    return offset <= limit && size <= limit - offset;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::size_t requested = 0;
    const ElfImage image =
        inspectElfImage(size, [&](std::uint64_t offset, void* out, std::size_t count) {
            FUZZ_CHECK(within(offset, count, size));
            requested += count;
            std::memcpy(out, data + offset, count);
            return true;
        });
    // Each byte is read a bounded number of times (headers, dynamic section
    // and string table at most once each).
    FUZZ_CHECK(requested <= 3 * size + sizeof(ElfW(Ehdr)));
    FUZZ_CHECK(image.loadable || !image.problem.empty());
    FUZZ_CHECK(image.loadable || image.needed.empty());
    if (image.loadable) {
        ElfW(Ehdr) header;
        std::memcpy(&header, data, sizeof header);
        for (std::size_t i = 0; i < header.e_phnum; ++i) {
            ElfW(Phdr) segment;
            std::memcpy(&segment, data + header.e_phoff + i * sizeof segment, sizeof segment);
            FUZZ_CHECK(segment.p_type != PT_LOAD ||
                       within(segment.p_offset, segment.p_filesz, size));
        }
        for (const std::string& name : image.needed) {
            FUZZ_CHECK(name.size() < size);
        }
    }
    return 0;
}
