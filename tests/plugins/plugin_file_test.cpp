// Plugin files the library does not control: half-written, hostile or
// oddly named files in a plugin folder, relative and non-ASCII paths.
// Each test expects a process of its own, as CTest runs them: directories
// that loads add to the library search stay in the process for good.
#include <gtest/gtest.h>

#include <fl/i18n.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "kestrel/plugins.h"
#include "platform/dynamic_library.h"
#include "support/channel_capture.h"
#include "support/loader_recorder.h"
#include "support/scoped_tmpdir.h"

#if !defined(_WIN32)
#include <elf.h>
#include <link.h>
#include <sys/stat.h>
#endif

using kestrel::KSException;
using kestrel::PluginLoader;
using kestrel::PluginReference;
using kestrel::ustring;
namespace fs = std::filesystem;

namespace {

const std::string kDir = KESTREL_TEST_PLUGIN_DIR;
const char* const kEntry = "kestrelTestEntry";
const char* const kNotLoaded = "corvane:plugin:pluginNotLoaded";

// The identifier load() threw, or "loaded <entry point's answer>".
std::string loadOutcome(const ustring& path, const ustring& searchPath = u"") {
    try {
        PluginReference reference(true, nullptr);
        reference.load(path, kEntry, searchPath);
        return "loaded " +
               std::to_string(reinterpret_cast<int (*)()>(reference.getEntryPointFcn())());
    } catch (const KSException& e) {
        return e.getID();
    }
}

ustring u(const fs::path& path) {
    return fl::i18n::to_ustring(path.u8string());
}

#if !defined(_WIN32)
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
    Bytes bytes = readFile(kDir + "/entry_plugin.dll");
    ElfW(Ehdr) & header() { return *reinterpret_cast<ElfW(Ehdr)*>(bytes.data()); }
    ElfW(Phdr) & segment(unsigned int type, int nth = 0) {
        for (int i = 0; i < header().e_phnum; ++i) {
            auto& s = reinterpret_cast<ElfW(Phdr)*>(bytes.data() + header().e_phoff)[i];
            if (s.p_type == type && nth-- == 0) {
                return s;
            }
        }
        throw std::runtime_error("no such segment");
    }
    ElfW(Dyn) & dynamicEntry(ElfW(Sxword) tag) {
        auto* entry = reinterpret_cast<ElfW(Dyn)*>(bytes.data() + segment(PT_DYNAMIC).p_offset);
        while (entry->d_tag != tag && entry->d_tag != DT_NULL) {
            ++entry;
        }
        return *entry;
    }
};

// Every count, size and offset is checked against the file before use: no
// huge allocation, no exception but the specified one, and no segment past
// the end of the file reaches the system loader (which would die of SIGBUS).
TEST(PluginFileTest, MalformedOrTruncatedLibrariesFailAsNotLoaded) {
    const kestrel_test::ScopedTmpdir tmp;
    const auto tryFile = [&](const std::string& name, const Bytes& bytes) {
        SCOPED_TRACE(name);
        writeFile(tmp.path() + "/" + name + ".dll", bytes);
        EXPECT_EQ(loadOutcome(u(tmp.path() + "/" + name)), kNotLoaded);
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
    writeFile(tmp.path() + "/good.dll", good.bytes);
    EXPECT_EQ(loadOutcome(u(tmp.path() + "/good")), "loaded 42");

    // A truncated dependency found through the search path is not loaded.
    fs::create_directories(tmp.path() + "/deps");
    for (const auto& file : fs::directory_iterator(kDir + "/plugin_deps")) {
        const Bytes bytes = readFile(file.path());
        writeFile(tmp.path() + "/deps/" + file.path().filename().string(), prefix(bytes, 4096));
    }
    EXPECT_EQ(loadOutcome(u(kDir + "/dependent_plugin"), u(tmp.path() + "/deps")), kNotLoaded);
}

// Only regular files are opened: a FIFO would block the opener for ever.
TEST(PluginFileTest, FifosAndDirectoriesWithAPluginsNameFailAsNotLoaded) {
    const kestrel_test::ScopedTmpdir tmp;
    ASSERT_EQ(::mkfifo((tmp.path() + "/fifo.dll").c_str(), 0600), 0);
    fs::create_directories(tmp.path() + "/directory.dll");
    EXPECT_EQ(loadOutcome(u(tmp.path() + "/fifo")), kNotLoaded);
    EXPECT_EQ(loadOutcome(u(tmp.path() + "/directory")), kNotLoaded);
    // Nor as a dependency in a search directory.
    fs::create_directories(tmp.path() + "/deps");
    for (const auto& file : fs::directory_iterator(kDir + "/plugin_deps")) {
        ASSERT_EQ(::mkfifo((tmp.path() + "/deps/" + file.path().filename().string()).c_str(), 0600),
                  0);
    }
    EXPECT_EQ(loadOutcome(u(kDir + "/dependent_plugin"), u(tmp.path() + "/deps")), kNotLoaded);
}

// Five plugins that each need the other four: every one is looked at once,
// not once per path through the group (which took minutes). Found only
// through the search path, the group cannot be loaded by the system loader.
TEST(PluginFileTest, PluginsThatNeedEachOtherAreEachInspectedOnce) {
    const kestrel_test::ScopedTmpdir tmp;
    const std::string cycle = kDir + "/plugin_cycle";
    fs::copy_file(cycle + "/libcycle_a.so", tmp.path() + "/cycle_a.dll");
    EXPECT_EQ(loadOutcome(u(tmp.path() + "/cycle_a"), u(cycle)), kNotLoaded);
    // The plugin, then each of the five names once.
    EXPECT_LE(kestrel::platform::lastInspectedFileCount(), 6u);
    EXPECT_GE(kestrel::platform::lastInspectedFileCount(), 5u);
}

// AddDllDirectory adds its directory again on every load that reaches it,
// as specified; the search still looks in each distinct directory once.
TEST(PluginFileTest, RepeatedFailingLoadsSearchEachDirectoryOnce) {
    const kestrel_test::ScopedTmpdir tmp;
    std::vector<std::size_t> counts;
    for (int i = 0; i < 50; ++i) {
        ASSERT_EQ(loadOutcome(u(kDir + "/dependent_plugin"), u(tmp.path())), kNotLoaded);
        counts.push_back(kestrel::platform::lastSearchedDirectoryCount());
    }
    EXPECT_GE(counts.front(), 1u);
    EXPECT_EQ(counts, std::vector<std::size_t>(counts.size(), counts.front()));
}

// An exception thrown through the system loader leaves its lock held: the
// process ends at once, saying which plugin and why, instead of a foreign
// exception leaving load() and a later load waiting for ever.
TEST(PluginFileDeathTest, PluginWhoseInitialiserThrowsEndsTheProcessWithAMessage) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(PluginLoader(kDir + "/throwing_plugin", kEntry, true, u""),
                 "throwing_plugin\\.dll failed: its initialisation threw an exception: "
                 "initialiser failed on purpose");
}
#endif

#if defined(_WIN32)
// The system loader stops an exception thrown by a library's initialisation
// and fails the load: the specified failure, and later loads go on.
TEST(PluginFileTest, PluginWhoseInitialiserThrowsFailsAsNotLoaded) {
    EXPECT_EQ(loadOutcome(fl::i18n::to_ustring(kDir + "/throwing_plugin")), kNotLoaded);
    EXPECT_EQ(loadOutcome(fl::i18n::to_ustring(kDir + "/entry_plugin")), "loaded 42");
}
#endif

// A path that cannot be converted exactly is refused, never turned into a
// different path that names another, existing file.
TEST(PluginFileTest, PathsThatAreNotValidTextAreRefused) {
    const kestrel_test::ScopedTmpdir tmp;
    fs::copy_file(kDir + "/entry_plugin.dll", tmp.path() + "/ab.dll");
    const ustring dir = u(tmp.path());
    const ustring lone = dir + u"/a" + char16_t(0xD800) + u"b";
    {
        kestrel_test::ChannelCapture capture("kestrel::PluginLoader", 0x7FFF);
        EXPECT_EQ(loadOutcome(lone), kNotLoaded);
        ASSERT_EQ(capture.lines().size(), 4u);
        EXPECT_EQ(capture.lines()[2].first, 512u);  // the missing-file line
    }
    EXPECT_EQ(loadOutcome(dir + u"/ab"), "loaded 42");
    // The system would stop at a zero unit: "ab\0x" is not "ab.dll".
    fs::copy_file(kDir + "/entry_plugin.dll", tmp.path() + "/ab");
    EXPECT_EQ(loadOutcome(dir + u"/ab" + char16_t(0) + u"x"), kNotLoaded);

    // Narrow text in a code page ("Jos\xe9") is not UTF-8: refused.
    fs::copy_file(kDir + "/entry_plugin.dll", tmp.path() + "/Jos.dll");
    try {
        PluginLoader loader(tmp.path() + "/Jos\xe9", kEntry, true, u"");
        ADD_FAILURE() << "loaded";
    } catch (const KSException& e) {
        EXPECT_STREQ(e.getID(), kNotLoaded);
    }

    // A search path that is not valid text is not added.
    fs::create_directories(tmp.path() + "/deps");
    for (const auto& file : fs::directory_iterator(kDir + "/plugin_deps")) {
        fs::copy_file(file.path(), tmp.path() + "/deps/" + file.path().filename().string());
    }
    kestrel_test::LoaderRecorder loader;
    EXPECT_EQ(loadOutcome(u(kDir + "/dependent_plugin"), dir + u"/de" + char16_t(0xDC00) + u"ps"),
              kNotLoaded);
    for (const std::string& call : loader.calls()) {
        EXPECT_EQ(call.find("AddDllDirectory"), std::string::npos);
    }
}

// Non-ASCII folders, for the plugin and for its search path.
TEST(PluginFileTest, PluginsLoadFromNonAsciiFolders) {
    const kestrel_test::ScopedTmpdir tmp;
    const fs::path plugins = fs::u8path(tmp.path() + u8"/Plug-ins Jos\u00E9 \u65E5\u672C");
    const fs::path deps = fs::u8path(tmp.path() + u8"/Abh\u00E4ngigkeiten");
    fs::create_directories(plugins);
    fs::create_directories(deps);
    fs::copy_file(kDir + "/entry_plugin.dll", plugins / "entry_plugin.dll");
    for (const auto& file : fs::directory_iterator(kDir + "/plugin_deps")) {
        fs::copy_file(file.path(), deps / file.path().filename());
    }
    EXPECT_EQ(loadOutcome(u(plugins / "entry_plugin")), "loaded 42");
    PluginLoader narrow((plugins / "entry_plugin").u8string(), kEntry, true, u"");
    EXPECT_NE(narrow.getEntryPointFcn(), nullptr);
    EXPECT_EQ(loadOutcome(u(kDir + "/dependent_plugin"), u(deps)), "loaded 42");
}

// A relative path is made absolute against the current directory before it
// is checked: the file checked and verified is the one loaded, even when the
// program's directory holds another file of that name (here entry_plugin).
TEST(PluginFileTest, RelativePathsLoadTheFileInTheCurrentDirectory) {
    const kestrel_test::ScopedTmpdir tmp;
    fs::copy_file(kDir + "/shadow_plugin.dll", tmp.path() + "/entry_plugin.dll");
    const fs::path previous = fs::current_path();
    fs::current_path(tmp.path());
    const std::string full = (fs::current_path() / "entry_plugin.dll").u8string();
    struct Verifier : kestrel::IVerificationStrategy {
        explicit Verifier(std::string& verified) : _verified(verified) {}
        bool verifyPlugin(const ustring& path) override {
            _verified = fl::i18n::to_string(path);
            return true;
        }
        KSException getException(const ustring&) override { return KSException("x", "x"); }
        std::string& _verified;
    };
    std::string verified, outcome;
    {
        kestrel_test::ChannelCapture capture("kestrel::PluginLoader", 0x7FFF);
        PluginReference reference(true, std::make_unique<Verifier>(verified));
        reference.load(u"entry_plugin", kEntry, u"");
        outcome = std::to_string(reinterpret_cast<int (*)()>(reference.getEntryPointFcn())());
        ASSERT_GE(capture.lines().size(), 2u);
        EXPECT_EQ(capture.lines()[1].second, "attemptLoad: filePath: " + full);
    }
    fs::current_path(previous);
    EXPECT_EQ(verified, full);
    EXPECT_EQ(outcome, "13");
}

}  // namespace
