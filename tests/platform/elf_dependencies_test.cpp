// Plugin files the library does not control, before they reach the system
// loader: every count, size and offset of their ELF headers is checked
// against the file before use: no huge allocation, no exception but the
// specified one, and no segment past the end of the file reaches the system
// loader (which would die of SIGBUS).
#include <elf.h>
#include <gtest/gtest.h>
#include <link.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/load_outcome.h"
#include "support/scoped_tmpdir.h"

using namespace kestrel_test;
namespace fs = std::filesystem;

namespace {

using Bytes = std::vector<char>;

Bytes readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void writeFile(const fs::path& path, const Bytes& bytes) {
    std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<long>(bytes.size()));
}

Bytes prefix(const Bytes& bytes, std::size_t size) {
    return Bytes(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size));
}

// A copy of a built plugin with chosen fields of its ELF headers changed.
struct ElfCopy {
    Bytes bytes = readFile(kPluginDir + "/entry_plugin.dll");
    ElfW(Ehdr) & header() { return *reinterpret_cast<ElfW(Ehdr)*>(bytes.data()); }
    ElfW(Phdr) & segment(unsigned int type, int nth = 0) {
        for (int i = 0; i < header().e_phnum; ++i) {
            auto& s = reinterpret_cast<ElfW(Phdr)*>(bytes.data() + header().e_phoff)[i];
            if (s.p_type == type && nth-- == 0)
                return s;
        }
        throw std::runtime_error("no such segment");
    }
    ElfW(Dyn) & dynamicEntry(ElfW(Sxword) tag) {
        auto* entry = reinterpret_cast<ElfW(Dyn)*>(bytes.data() + segment(PT_DYNAMIC).p_offset);
        while (entry->d_tag != tag && entry->d_tag != DT_NULL)
            ++entry;
        return *entry;
    }
};

}  // namespace

TEST(ElfDependenciesTest, MalformedOrTruncatedLibrariesFailAsNotLoaded) {
    const ScopedTmpdir tmp;
    const auto tryFile = [&](const std::string& name, const Bytes& bytes) {
        SCOPED_TRACE(name);
        writeFile(tmp.dir() / (name + ".dll"), bytes);
        EXPECT_EQ(loadOutcome(u(tmp.dir() / name)), kNotLoaded);
    };
    const ElfCopy good;
    ASSERT_GT(good.bytes.size(), 8192u);
    tryFile("empty", {});
    tryFile("text", Bytes{'n', 'o', 't', ' ', 'E', 'L', 'F'});
    tryFile("header_only", prefix(good.bytes, sizeof(ElfW(Ehdr))));
    tryFile("first_page", prefix(good.bytes, 4096));
    tryFile("half", prefix(good.bytes, good.bytes.size() / 2));
    const auto patched = [&](const std::string& name, auto change) {
        ElfCopy copy;
        change(copy);
        tryFile(name, copy.bytes);
    };
    patched("many_headers", [](ElfCopy& c) { c.header().e_phnum = 0xFFFE; });
    patched("headers_far", [](ElfCopy& c) { c.header().e_phoff = ~0ull - 8; });
    patched("dynamic_huge", [](ElfCopy& c) { c.segment(PT_DYNAMIC).p_filesz = 1ull << 60; });
    patched("dynamic_far", [](ElfCopy& c) { c.segment(PT_DYNAMIC).p_offset = ~0ull - 8; });
    patched("dynamic_unmapped", [](ElfCopy& c) { c.segment(PT_DYNAMIC).p_vaddr += 1ull << 40; });
    patched("load_past_end", [](ElfCopy& c) {
        c.segment(PT_LOAD, 1).p_filesz = c.segment(PT_LOAD, 1).p_memsz = 1ull << 32;
    });
    patched("strings_far", [](ElfCopy& c) { c.dynamicEntry(DT_STRTAB).d_un.d_ptr = ~0ull - 8; });
    // Unchanged, the copy loads.
    writeFile(tmp.dir() / "good.dll", good.bytes);
    EXPECT_EQ(loadOutcome(u(tmp.dir() / "good")), "loaded 42");

    // A truncated dependency found through the search path is not loaded.
    fs::create_directories(tmp.dir() / "deps");
    for (const auto& file : fs::directory_iterator(kPluginDir + "/plugin_deps"))
        writeFile(tmp.dir() / "deps" / file.path().filename(), prefix(readFile(file.path()), 4096));
    EXPECT_EQ(loadOutcome(u(kPluginDir + "/dependent_plugin"), u(tmp.dir() / "deps")), kNotLoaded);
}
