#include "platform/posix/elf_dependencies.h"

#include <elf.h>
#include <link.h>

#include <cstring>
#include <fstream>

namespace kestrel {
namespace platform {
namespace posix {

namespace {

// Upper bound for a dynamic string table we are willing to read.
constexpr std::size_t kMaxStringTableSize = 16u << 20;

template <typename T>
bool readAt(std::ifstream& file, std::uint64_t offset, T* out, std::size_t count = 1) {
    file.seekg(static_cast<std::streamoff>(offset));
    file.read(reinterpret_cast<char*>(out), static_cast<std::streamsize>(sizeof(T) * count));
    return static_cast<bool>(file);
}

}  // namespace

std::vector<std::string> neededLibraries(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    ElfW(Ehdr) header{};
    if (!readAt(file, 0, &header) || std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 ||
        header.e_ident[EI_CLASS] != (sizeof(void*) == 8 ? ELFCLASS64 : ELFCLASS32) ||
        header.e_phentsize != sizeof(ElfW(Phdr)) || header.e_phnum == 0) {
        return {};
    }
    std::vector<ElfW(Phdr)> segments(header.e_phnum);
    if (!readAt(file, header.e_phoff, segments.data(), segments.size())) {
        return {};
    }

    // The dynamic section: DT_NEEDED entries are offsets into the string
    // table, which DT_STRTAB gives as an address to map back to the file.
    std::vector<ElfW(Dyn)> entries;
    for (const ElfW(Phdr) & segment : segments) {
        if (segment.p_type == PT_DYNAMIC) {
            entries.resize(segment.p_filesz / sizeof(ElfW(Dyn)));
            if (!readAt(file, segment.p_offset, entries.data(), entries.size())) {
                return {};
            }
        }
    }
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
    if (nameOffsets.empty() || tableSize == 0 || tableSize > kMaxStringTableSize) {
        return {};
    }
    std::uint64_t tableOffset = 0;
    bool mapped = false;
    for (const ElfW(Phdr) & segment : segments) {
        if (segment.p_type == PT_LOAD && tableAddress >= segment.p_vaddr &&
            tableAddress + tableSize <= segment.p_vaddr + segment.p_filesz) {
            tableOffset = segment.p_offset + (tableAddress - segment.p_vaddr);
            mapped = true;
            break;
        }
    }
    std::string table(static_cast<std::size_t>(tableSize), '\0');
    if (!mapped || !readAt(file, tableOffset, &table[0], table.size())) {
        return {};
    }

    std::vector<std::string> names;
    for (const std::uint64_t offset : nameOffsets) {
        if (offset < table.size()) {
            names.emplace_back(table.c_str() + offset);
        }
    }
    return names;
}

}  // namespace posix
}  // namespace platform
}  // namespace kestrel
