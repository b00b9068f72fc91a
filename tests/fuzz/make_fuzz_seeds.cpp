// Writes the seed inputs of the fuzz targets that take files or paths:
// a small ELF image, well formed and broken in a few ways (the fuzzer finds
// the other breaks from these), and plugin paths. Seeds are made here rather than kept
// as binary files.
//
//   make_fuzz_seeds <directory>   (writes <directory>/<target>/<seed>)
#include <elf.h>
#include <link.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

using Bytes = std::vector<char>;

// A shared object of one loaded segment holding everything: header, two
// program headers (PT_LOAD, PT_DYNAMIC), a dynamic section needing two
// libraries, and its string table.
struct Image {
    static constexpr std::size_t kPhoff = sizeof(ElfW(Ehdr));
    static constexpr std::size_t kDynOff = kPhoff + 2 * sizeof(ElfW(Phdr));
    static constexpr std::size_t kDynCount = 5;
    static constexpr std::size_t kStrOff = kDynOff + kDynCount * sizeof(ElfW(Dyn));
    static constexpr char kStrings[] = "\0liba.so\0libb.so\0";
    static constexpr std::size_t kSize = kStrOff + sizeof kStrings;

    ElfW(Ehdr) header{};
    ElfW(Phdr) segments[2]{};
    ElfW(Dyn) dynamic[kDynCount]{};

    Image() {
        std::memcpy(header.e_ident, ELFMAG, SELFMAG);
        header.e_ident[EI_CLASS] = sizeof(void*) == 8 ? ELFCLASS64 : ELFCLASS32;
        header.e_ident[EI_DATA] = ELFDATA2LSB;
        header.e_ident[EI_VERSION] = EV_CURRENT;
        header.e_version = EV_CURRENT;
        header.e_type = ET_DYN;
        header.e_phoff = kPhoff;
        header.e_ehsize = sizeof header;
        header.e_phentsize = sizeof(ElfW(Phdr));
        header.e_phnum = 2;
        segments[0].p_type = PT_LOAD;
        segments[0].p_filesz = segments[0].p_memsz = kSize;
        segments[0].p_align = 0x1000;
        segments[1].p_type = PT_DYNAMIC;
        segments[1].p_offset = segments[1].p_vaddr = kDynOff;
        segments[1].p_filesz = segments[1].p_memsz = kDynCount * sizeof(ElfW(Dyn));
        const ElfW(Sxword) tags[kDynCount] = {DT_NEEDED, DT_NEEDED, DT_STRTAB, DT_STRSZ, DT_NULL};
        const ElfW(Xword) values[kDynCount] = {1, 9, kStrOff, sizeof kStrings, 0};
        for (std::size_t i = 0; i < kDynCount; ++i) {
            dynamic[i].d_tag = tags[i];
            dynamic[i].d_un.d_val = values[i];
        }
    }

    Bytes bytes() const {
        Bytes out(kSize);
        std::memcpy(out.data(), &header, sizeof header);
        std::memcpy(out.data() + kPhoff, segments, sizeof segments);
        std::memcpy(out.data() + kDynOff, dynamic, sizeof dynamic);
        std::memcpy(out.data() + kStrOff, kStrings, sizeof kStrings);
        return out;
    }
};

void write(const fs::path& directory, const std::string& name, const Bytes& bytes) {
    fs::create_directories(directory);
    std::ofstream(directory / name, std::ios::binary)
        .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

Bytes text(const std::string& s) {
    return Bytes(s.begin(), s.end());
}

// A UTF-16 path input of plugin_path_fuzz: mode 0, then the units.
Bytes units(const std::u16string& s) {
    Bytes out{0};
    for (const char16_t c : s) {
        out.push_back(static_cast<char>(c & 0xFF));
        out.push_back(static_cast<char>(c >> 8));
    }
    return out;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <directory>\n", argv[0]);
        return 2;
    }
    const fs::path elf = fs::path(argv[1]) / "elf_dependencies_fuzz";
    const auto variant = [&](const std::string& name, auto change) {
        Image image;
        change(image);
        write(elf, name, image.bytes());
    };
    variant("well_formed", [](Image&) {});
    variant("headers_far", [](Image& i) { i.header.e_phoff = ~0ull - 8; });
    variant("dynamic_huge", [](Image& i) { i.segments[1].p_filesz = 1ull << 60; });
    variant("strings_far", [](Image& i) { i.dynamic[2].d_un.d_ptr = ~0ull - 8; });
    variant("name_past_table", [](Image& i) { i.dynamic[1].d_un.d_val = 1000; });
    const Bytes whole = Image().bytes();
    write(elf, "truncated", Bytes(whole.begin(), whole.begin() + Image::kStrOff));

    const fs::path paths = fs::path(argv[1]) / "plugin_path_fuzz";
    write(paths, "existing", units(u"/tmp/kestrel-plugin-path-fuzz/p"));
    write(paths, "lone_surrogate", units(u"/tmp/kestrel-plugin-path-fuzz/\xD800p"));
    write(paths, "relative", units(u"plugins\\x.DLL"));
    write(paths, "narrow_code_page", text("\x01/tmp/kestrel-plugin-path-fuzz/\xE9p"));
    // Relative, reaching the existing file from any directory less than 16
    // levels deep.
    write(paths, "relative_existing",
          units(u"..\\..\\..\\..\\..\\..\\..\\..\\..\\..\\..\\..\\..\\..\\..\\..\\tmp/"
                u"kestrel-plugin-path-fuzz/p"));
    // Rooted by backslashes, which are separators on every system.
    write(paths, "backslash_root", units(u"\\tmp\\kestrel-plugin-path-fuzz\\p"));
    return 0;
}
