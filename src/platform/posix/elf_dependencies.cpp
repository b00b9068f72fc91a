#include "platform/posix/elf_dependencies.h"

#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace kestrel {
namespace platform {
namespace posix {

namespace {

// Upper bounds for the dynamic section and its string table (real ones
// have tens of entries and a few kilobytes of names).
constexpr std::uint64_t kMaxDynamicSize = 1u << 20;
constexpr std::uint64_t kMaxStringTableSize = 16u << 20;

// True when [offset, offset + size) lies within [0, limit).
bool within(std::uint64_t offset, std::uint64_t size, std::uint64_t limit) {
    return offset <= limit && size <= limit - offset;
}

// True when the address range [address, address + size) is backed by the
// file part of a loaded segment; its file offset goes to offset.
bool mapToFile(const std::vector<ElfW(Phdr)>& segments, std::uint64_t address, std::uint64_t size,
               std::uint64_t& offset) {
    for (const ElfW(Phdr) & segment : segments) {
        if (segment.p_type == PT_LOAD && address >= segment.p_vaddr &&
            within(address - segment.p_vaddr, size, segment.p_filesz)) {
            offset = segment.p_offset + (address - segment.p_vaddr);
            return true;
        }
    }
    return false;
}

// True when [address, address + size) lies within the memory image of a
// loaded segment.
bool mapped(const std::vector<ElfW(Phdr)>& segments, std::uint64_t address, std::uint64_t size) {
    for (const ElfW(Phdr) & segment : segments) {
        if (segment.p_type == PT_LOAD && address >= segment.p_vaddr &&
            within(address - segment.p_vaddr, size, segment.p_memsz)) {
            return true;
        }
    }
    return false;
}

// The dynamic entries the loader follows as addresses while it loads (with
// the tag of their size, or DT_NULL when they have none).
struct AddressEntry {
    std::int64_t address;
    std::int64_t size;
};
constexpr AddressEntry kAddressEntries[] = {
    {DT_STRTAB, DT_STRSZ},
    {DT_RELA, DT_RELASZ},
    {DT_REL, DT_RELSZ},
    {DT_JMPREL, DT_PLTRELSZ},
    {DT_INIT_ARRAY, DT_INIT_ARRAYSZ},
    {DT_FINI_ARRAY, DT_FINI_ARRAYSZ},
    {DT_PREINIT_ARRAY, DT_PREINIT_ARRAYSZ},
    {DT_SYMTAB, DT_NULL},
    {DT_HASH, DT_NULL},
    {DT_GNU_HASH, DT_NULL},
    {DT_VERSYM, DT_NULL},
    {DT_VERNEED, DT_NULL},
    {DT_VERDEF, DT_NULL},
    {DT_INIT, DT_NULL},
    {DT_FINI, DT_NULL},
};

// The value of the first entry with tag, if there is one.
bool find(const std::vector<ElfW(Dyn)>& entries, std::int64_t tag, std::uint64_t& value) {
    for (const ElfW(Dyn) & entry : entries) {
        if (entry.d_tag == DT_NULL) {
            break;
        }
        if (entry.d_tag == tag) {
            value = entry.d_un.d_val;
            return true;
        }
    }
    return false;
}

ElfImage refused(const char* problem) {
    ElfImage image;
    image.problem = problem;
    return image;
}

bool nativeHeader(const ElfW(Ehdr) & header) {
    constexpr unsigned char nativeClass = sizeof(void*) == 8 ? ELFCLASS64 : ELFCLASS32;
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    constexpr unsigned char nativeData = ELFDATA2LSB;
#else
    constexpr unsigned char nativeData = ELFDATA2MSB;
#endif
    return std::memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 &&
           header.e_ident[EI_CLASS] == nativeClass && header.e_ident[EI_DATA] == nativeData;
}

}  // namespace

ElfImage inspectElfImage(std::uint64_t fileSize, const ReadAt& readFile) {
    // Nothing to read is never asked for (an empty table has no storage).
    const auto readAt = [&](std::uint64_t offset, void* out, std::size_t size) {
        return size == 0 || readFile(offset, out, size);
    };
    ElfW(Ehdr) header{};
    if (fileSize < sizeof header || !readAt(0, &header, sizeof header) || !nativeHeader(header)) {
        return refused("not an ELF file of this system");
    }
    // PN_XNUM (the count kept in a section header) is not for libraries.
    if (header.e_phentsize != sizeof(ElfW(Phdr)) || header.e_phnum == 0 ||
        header.e_phnum >= PN_XNUM ||
        !within(header.e_phoff, std::uint64_t{header.e_phnum} * sizeof(ElfW(Phdr)), fileSize)) {
        return refused("bad program header table");
    }
    std::vector<ElfW(Phdr)> segments(header.e_phnum);
    if (!readAt(header.e_phoff, segments.data(), segments.size() * sizeof(ElfW(Phdr)))) {
        return refused("cannot read the program header table");
    }

    bool anyLoaded = false;
    const ElfW(Phdr)* dynamic = nullptr;
    for (const ElfW(Phdr) & segment : segments) {
        if (segment.p_type == PT_LOAD) {
            if (!within(segment.p_offset, segment.p_filesz, fileSize)) {
                return refused("a loaded segment lies past the end of the file");
            }
            if (segment.p_filesz > segment.p_memsz) {
                return refused("a loaded segment is larger in the file than in memory");
            }
            anyLoaded = true;
        } else if (segment.p_type == PT_DYNAMIC && dynamic == nullptr) {
            dynamic = &segment;
        }
    }
    if (!anyLoaded) {
        return refused("no loaded segment");
    }

    ElfImage image;
    if (dynamic == nullptr) {
        image.loadable = true;
        return image;
    }
    // The loader reads the dynamic section where it is mapped.
    std::uint64_t dynamicOffset = 0;
    if (dynamic->p_filesz > kMaxDynamicSize ||
        !within(dynamic->p_offset, dynamic->p_filesz, fileSize) ||
        !mapToFile(segments, dynamic->p_vaddr, dynamic->p_filesz, dynamicOffset)) {
        return refused("the dynamic section lies outside the loaded segments");
    }
    std::vector<ElfW(Dyn)> entries(dynamic->p_filesz / sizeof(ElfW(Dyn)));
    if (!readAt(dynamic->p_offset, entries.data(), entries.size() * sizeof(ElfW(Dyn)))) {
        return refused("cannot read the dynamic section");
    }

    // DT_NEEDED entries are offsets into the string table, which DT_STRTAB
    // gives as an address to map back to the file.
    std::uint64_t tableAddress = 0;
    std::uint64_t tableSize = 0;
    std::vector<std::uint64_t> nameOffsets;
    for (const ElfW(Dyn) & entry : entries) {
        if (entry.d_tag == DT_NULL) {
            break;
        } else if (entry.d_tag == DT_STRTAB) {
            tableAddress = entry.d_un.d_ptr;
        } else if (entry.d_tag == DT_STRSZ) {
            tableSize = entry.d_un.d_val;
        } else if (entry.d_tag == DT_NEEDED) {
            nameOffsets.push_back(entry.d_un.d_val);
        }
    }
    // Each table the loader reads must lie in the loaded image.
    for (const AddressEntry& table : kAddressEntries) {
        std::uint64_t address = 0;
        std::uint64_t size = 1;
        if (find(entries, table.address, address) &&
            ((table.size != DT_NULL && !find(entries, table.size, size)) ||
             !mapped(segments, address, size))) {
            return refused("a dynamic table lies outside the loaded segments");
        }
    }
    image.loadable = true;
    if (nameOffsets.empty()) {
        return image;
    }
    std::uint64_t tableOffset = 0;
    if (tableSize == 0 || tableSize > kMaxStringTableSize ||
        !mapToFile(segments, tableAddress, tableSize, tableOffset) ||
        !within(tableOffset, tableSize, fileSize)) {
        return refused("bad dynamic string table");
    }
    std::string table(static_cast<std::size_t>(tableSize), '\0');
    if (!readAt(tableOffset, &table[0], table.size())) {
        return refused("cannot read the dynamic string table");
    }
    for (const std::uint64_t offset : nameOffsets) {
        if (offset < table.size()) {
            image.needed.emplace_back(table.c_str() + offset);
        }
    }
    return image;
}

int openRegularFile(const std::string& path, std::uint64_t& size) {
    // The first look does not open anything: opening a FIFO for reading
    // would wait for a writer. O_NONBLOCK guards the moment between the look
    // and the open, and fstat checks what was really opened.
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
        return -1;
    }
    if (!S_ISREG(status.st_mode)) {
        errno = EINVAL;
        return -1;
    }
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        return -1;
    }
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        ::close(fd);
        errno = EINVAL;
        return -1;
    }
    size = static_cast<std::uint64_t>(status.st_size);
    return fd;
}

int inspectElfFile(const std::string& path, ElfImage& image) {
    std::uint64_t size = 0;
    const int fd = openRegularFile(path, size);
    if (fd < 0) {
        const int error = errno;
        image = refused(error == EINVAL ? "not a regular file" : "cannot be opened");
        return error;
    }
    image = inspectElfImage(size, [fd](std::uint64_t offset, void* out, std::size_t count) {
        auto* bytes = static_cast<char*>(out);
        while (count > 0) {
            const ssize_t got = ::pread(fd, bytes, count, static_cast<off_t>(offset));
            if (got < 0 && errno == EINTR) {
                continue;
            }
            if (got <= 0) {
                return false;
            }
            bytes += got;
            offset += static_cast<std::uint64_t>(got);
            count -= static_cast<std::size_t>(got);
        }
        return true;
    });
    ::close(fd);
    return 0;
}

}  // namespace posix
}  // namespace platform
}  // namespace kestrel
