// Loading through a plugin reference: the loader calls each load makes, the
// lines it writes, what it throws; paths that are relative, beyond ASCII or
// not valid text.
#include <gtest/gtest.h>

#include <fl/i18n.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kestrel/plugins.h"
#include "plugins/loader_api.h"
#include "support/channel_capture.h"
#include "support/load_outcome.h"
#include "support/os.h"
#include "support/scoped_tmpdir.h"

using kestrel::KSException;
using kestrel::PluginLoader;
using kestrel::PluginReference;
using kestrel::ustring;
using Calls = std::vector<std::string>;
namespace fs = std::filesystem;

namespace {

// Each call is recorded as "<label> ok" or "<label> null", the label being
// "LoadLibraryW", "LoadLibraryExW 0x<flags>", "AddDllDirectory",
// "GetProcAddress <name>" or "FreeLibrary"; SetErrorMode as
// "SetErrorMode 0x<mode>". Not synchronised: load from one thread.
class LoaderRecorder {
  public:
    // Calls with the label failing return null without reaching the system.
    explicit LoaderRecorder(std::string failing = "") {
        _calls.clear();
        _failing = std::move(failing);
        kestrel::detail::setLoaderApiForTesting(&api);
    }
    ~LoaderRecorder() { kestrel::detail::setLoaderApiForTesting(nullptr); }

    static std::vector<std::string>& calls() { return _calls; }

  private:
    using Api = kestrel::detail::LoaderApi;
    inline static std::vector<std::string> _calls;
    inline static std::string _failing;
    static const Api api;

    static const Api& os() { return kestrel::detail::systemLoaderApi(); }
    static std::string hex(std::uint32_t value) {
        char text[16];
        std::snprintf(text, sizeof text, "0x%x", value);
        return text;
    }
    // The system's call, unless calls with this label fail.
    template <auto function, typename... Args>
    static auto call(const std::string& label, Args... args) {
        decltype((os().*function)(args...)) result{};
        if (label != _failing) {
            result = (os().*function)(args...);
        }
        _calls.push_back(label + (result ? " ok" : " null"));
        return result;
    }
};

const LoaderRecorder::Api LoaderRecorder::api = {
    [](std::uint32_t mode) {
        _calls.push_back("SetErrorMode " + hex(mode));
        return os().setErrorMode(mode);
    },
    [](const wchar_t* path) { return call<&Api::loadLibrary>("LoadLibraryW", path); },
    [](const wchar_t* path, void* reserved, std::uint32_t flags) {
        return call<&Api::loadLibraryEx>("LoadLibraryExW " + hex(flags), path, reserved, flags);
    },
    [](const wchar_t* dir) { return call<&Api::addDllDirectory>("AddDllDirectory", dir); },
    [](void* module, const char* name) {
        return call<&Api::getProcAddress>(std::string("GetProcAddress ") + name, module, name);
    },
    [](void* module) { return call<&Api::freeLibrary>("FreeLibrary", module); },
};

using kestrel_test::kNotLoaded;
using kestrel_test::loadOutcome;
using kestrel_test::u;
const std::string kDir = KESTREL_TEST_PLUGIN_DIR;
const char* const kEntry = kestrel_test::kPluginEntry;

// Copies the dependency of dependent_plugin into dir.
void copyDependency(const fs::path& dir) {
    fs::create_directories(dir);
    for (const auto& file : fs::directory_iterator(kDir + "/plugin_deps"))
        fs::copy_file(file.path(), dir / file.path().filename());
}

// Notes its calls with the loader calls, and refuses every file; with 7 or
// 42 it throws that number from verifyPlugin or getException instead.
struct TestStrategy : kestrel::IVerificationStrategy {
    explicit TestStrategy(int throws) : _throws(throws) {}
    bool verifyPlugin(const ustring& path) override {
        LoaderRecorder::calls().push_back("verify " + fl::i18n::to_string(path));
        return _throws == 7 ? throw 7 : false;
    }
    KSException getException(const ustring& path) override {
        LoaderRecorder::calls().push_back("exception " + fl::i18n::to_string(path));
        return _throws == 42 ? throw 42 : KSException("test:plugin:refused", "refused");
    }
    int _throws;
};

struct LoadCase {
    const char* name;
    std::string path, file, entry, searchPath;  // file: the path tried
    std::string failing;                        // the loader call made to fail
    int strategy;                               // 0: none; else a TestStrategy(strategy)
    std::string failure, failureLine;           // failure: empty on success
    Calls calls;                                // loader and strategy calls, freeing included
};

const std::string kEntryPlugin = kDir + "/entry_plugin", kEntryDll = kEntryPlugin + ".dll";
const std::string kDependent = kDir + "/dependent_plugin", kDependentDll = kDependent + ".dll";
const std::string kNotLoadedText =
    std::string(kNotLoaded) + ": Failure to load the requested plugin: ";
const std::string kNoEntryText =
    "corvane:plugin:symbolNotFound: Failure to find the expected plugin entry point: ";
// A relative path as load() tries it: made absolute against the current directory.
const std::string kRelative = (fs::current_path() / "dir" / "a.DLL.dll").u8string();

// The first calls of a load whose library the system cannot load, in a
// process whose error mode was 0x2 (the loads add 0x8001 to it), then more.
Calls loading(std::size_t plainCalls, const Calls& more) {
    const Calls plain = {"SetErrorMode 0x8001", "SetErrorMode 0x8003", "LoadLibraryW null",
                         "LoadLibraryExW 0x8 null", "LoadLibraryExW 0x1100 null"};
    Calls calls(plain.begin(), plain.begin() + static_cast<std::ptrdiff_t>(plainCalls));
    calls.insert(calls.end(), more.begin(), more.end());
    return calls;
}

// The dependent plugin fails without its search path (or with one that is
// not absolute) before the directory is added, for good, to the process.
const LoadCase kLoadCases[] = {
    {"MissingFile", "dir/a.DLL", kRelative, kEntry, "/search", "", 1,
     kNotLoadedText + kRelative + ".", "attemptLoad: filePath: " + kRelative + " doesn't exist",
     Calls{}},
    {"StrategyRefuses", kEntryDll, kEntryDll, kEntry, "", "", 1, "test:plugin:refused: refused",
     "Verification failed!", Calls{"verify " + kEntryDll, "exception " + kEntryDll}},
    {"StrategyThrowsFromVerify", kEntryDll, kEntryDll, kEntry, "", "", 7, "throws 7", "",
     Calls{"verify " + kEntryDll}},
    {"StrategyThrowsFromGetException", kEntryPlugin, kEntryDll, kEntry, "", "", 42, "throws 42", "",
     Calls{"verify " + kEntryDll, "exception " + kEntryDll}},
    {"EntryPointMissingAfterTheFallbackLoad", kEntryPlugin, kEntryDll, "nowhere", "/unused",
     "LoadLibraryW", 0, kNoEntryText + "nowhere.", "",
     loading(2, {"LoadLibraryW null", "LoadLibraryExW 0x8 ok", "GetProcAddress nowhere null",
                 "FreeLibrary ok"})},
    {"DependencyNotFoundWithoutSearchPath", kDependent, kDependentDll, kEntry, "", "", 0,
     kNotLoadedText + kDependentDll + ".", "loadLibraryAndAddGlobalSymbols failed!",
     loading(5, {})},
    {"RelativeSearchPathIsNotAdded", kDependent, kDependentDll, kEntry, "relative", "", 0,
     kNotLoadedText + kDependentDll + ".", "loadLibraryAndAddGlobalSymbols failed!",
     loading(5, {"AddDllDirectory null"})},
    {"DependencyFoundThroughSearchPath", kDependent, kDependentDll, kEntry, kDir + "/plugin_deps",
     "", 0, "", "",
     loading(5, {"AddDllDirectory ok", "LoadLibraryExW 0x400 ok",
                 "GetProcAddress kestrelTestEntry ok", "FreeLibrary ok"})},
    // The dependency's exports are not the plugin's.
    {"DependencysExportsAreNotThePlugins", kDependent, kDependentDll, "kestrelDependencyValue",
     kDir + "/plugin_deps", "", 0, kNoEntryText + "kestrelDependencyValue.", "",
     loading(5, {"AddDllDirectory ok", "LoadLibraryExW 0x400 ok",
                 "GetProcAddress kestrelDependencyValue null", "FreeLibrary ok"})},
};

class PluginReferenceLoadTest : public ::testing::TestWithParam<LoadCase> {};

// Failed loads keep no library even without unloadOnDestruction, and a
// throwing strategy's exception passes out unchanged; loaded plugins are
// moved to another reference and freed with it.
TEST_P(PluginReferenceLoadTest, MakesItsCallsWritesItsLinesAndThrowsItsFailure) {
    const LoadCase& c = GetParam();
    kestrel::detail::systemLoaderApi().setErrorMode(0x2);
    kestrel_test::ChannelCapture capture("kestrel::PluginLoader", 0x7FFF);
    LoaderRecorder loader(c.failing);
    std::string id, message, failure;
    try {
        PluginReference reference(
            c.failure.empty(), c.strategy ? std::make_unique<TestStrategy>(c.strategy) : nullptr);
        reference.load(fl::i18n::to_ustring(c.path), c.entry, fl::i18n::to_ustring(c.searchPath));
        const PluginReference moved(std::move(reference));
        EXPECT_EQ(reference.getEntryPointFcn(), nullptr);  // NOLINT(bugprone-use-after-move)
        EXPECT_EQ(reinterpret_cast<int (*)()>(moved.getEntryPointFcn())(), 42);
    } catch (const KSException& e) {
        id = e.getID();
        message = e.getMessage();
        failure = id + ": " + message;
    } catch (int e) {
        failure = "throws " + std::to_string(e);
    }
    EXPECT_EQ(failure, c.failure);
    std::vector<kestrel_test::ChannelLine> lines = {
        {8, "load: pluginPath: " + c.path + ", pluginEntryPoint: " + c.entry +
                ", libraryLoadSearchPath: " + c.searchPath},
        {8, "attemptLoad: filePath: " + c.file}};
    if (!c.failureLine.empty()) {
        lines.push_back({512, c.failureLine});
        lines.push_back({8, "After attemptLoad ex.ID: " + id + ", ex.Message: " + message});
    }
    EXPECT_EQ(capture.lines(), lines);
    EXPECT_EQ(loader.calls(), c.calls);
    EXPECT_FALSE(kestrel_test::isLibraryLoaded(c.file));
}

void PrintTo(const LoadCase& load, std::ostream* out) {
    *out << load.name;
}
std::string nameOf(const ::testing::TestParamInfo<LoadCase>& load) {
    return load.param.name;
}

INSTANTIATE_TEST_SUITE_P(Loads, PluginReferenceLoadTest, ::testing::ValuesIn(kLoadCases), nameOf);

// A path that cannot be converted exactly is refused, never turned into a
// different path that names another, existing file.
TEST(PluginReferenceTest, PathsThatAreNotValidTextAreRefused) {
    const kestrel_test::ScopedTmpdir tmp;
    fs::copy_file(kEntryDll, tmp.dir() / "ab.dll");
    const ustring dir = u(tmp.path());
    {
        kestrel_test::ChannelCapture capture("kestrel::PluginLoader", 0x7FFF);
        EXPECT_EQ(loadOutcome(dir + u"/a" + char16_t(0xD800) + u"b"), kNotLoaded);
        ASSERT_EQ(capture.lines().size(), 4u);
        EXPECT_EQ(capture.lines()[2].first, 512u);  // the missing-file line
    }
    EXPECT_EQ(loadOutcome(dir + u"/ab"), "loaded 42");
    // The system would stop at a zero unit: "ab\0x" is not "ab.dll".
    fs::copy_file(kEntryDll, tmp.dir() / "ab");
    EXPECT_EQ(loadOutcome(dir + u"/ab" + char16_t(0) + u"x"), kNotLoaded);

    // Narrow text in a code page ("Jos\xe9" is "José" in code page 1252) is
    // not UTF-8: refused, although dropping the byte would name a plugin.
    fs::copy_file(kEntryDll, tmp.dir() / "Jos.dll");
    try {
        PluginLoader loader(tmp.path() + "/Jos\xe9", kEntry, true, u"");
        ADD_FAILURE() << "loaded";
    } catch (const KSException& e) {
        EXPECT_STREQ(e.getID(), kNotLoaded);
    }

    // A search path that is not valid text is not added.
    copyDependency(tmp.dir() / "deps");
    LoaderRecorder loader;
    EXPECT_EQ(loadOutcome(u(kDependent), dir + u"/de" + char16_t(0xDC00) + u"ps"), kNotLoaded);
    for (const std::string& call : loader.calls())
        EXPECT_EQ(call.find("AddDllDirectory"), std::string::npos);
}

// Folders beyond ASCII, for the plugin and for its search path, given as
// UTF-16 and as UTF-8.
TEST(PluginReferenceTest, PluginsLoadFromNonAsciiFolders) {
    const kestrel_test::ScopedTmpdir tmp;
    const fs::path plugins = tmp.dir() / fs::u8path(u8"Plug-ins Jos\u00E9 \u65E5\u672C \U0001F600");
    const fs::path deps = tmp.dir() / fs::u8path(u8"Abh\u00E4ngigkeiten");
    fs::create_directories(plugins);
    fs::copy_file(kEntryDll, plugins / "entry_plugin.dll");
    copyDependency(deps);
    EXPECT_EQ(loadOutcome(u(plugins / "entry_plugin")), "loaded 42");
    PluginLoader narrow((plugins / "entry_plugin").u8string(), kEntry, true, u"");
    EXPECT_NE(narrow.getEntryPointFcn(), nullptr);
    EXPECT_EQ(loadOutcome(u(kDependent), u(deps)), "loaded 42");
}

// A relative path is made absolute against the current directory before it
// is checked: the file checked and verified is the one loaded, even when the
// plugins' directory holds another file of that name (here entry_plugin).
TEST(PluginReferenceTest, RelativePathsLoadTheFileInTheCurrentDirectory) {
    const kestrel_test::ScopedTmpdir tmp;
    fs::copy_file(kDir + "/shadow_plugin.dll", tmp.dir() / "entry_plugin.dll");
    const fs::path previous = fs::current_path();
    fs::current_path(tmp.dir());
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
        PluginReference reference(true, std::make_unique<Verifier>(verified));
        reference.load(u"entry_plugin", kEntry, u"");
        outcome = std::to_string(reinterpret_cast<int (*)()>(reference.getEntryPointFcn())());
    }
    fs::current_path(previous);
    EXPECT_EQ(verified, full);
    EXPECT_EQ(outcome, "13");
}

// Each kind of failure keeps its fixed exception and says why in the reason;
// the next successful load clears it, and a move takes it along.
TEST(PluginReferenceTest, SaysWhyEachLoadFailedAndForgetsItOnSuccess) {
    const kestrel_test::ScopedTmpdir tmp;
    const std::string notLibrary = tmp.path() + "/not_a_library.dll";
    std::ofstream(notLibrary) << "just text\n";
    PluginReference reference(true, std::make_unique<kestrel::NoOpVerificationStrategy>());
    const auto load = [&](const std::string& path, const char* entry) {  // "<id> <reason>"
        try {
            reference.load(fl::i18n::to_ustring(path), entry, u"");
            return "loaded " + reference.getLastLoadFailureReason();
        } catch (const KSException& e) {
            return std::string(e.getID()) + " " + reference.getLastLoadFailureReason();
        }
    };
    const std::string notLoaded = std::string(kNotLoaded) + " ";
    EXPECT_EQ(load(kDir + "/no_such_plugin", kEntry),
              notLoaded + "file not found: " + kDir + "/no_such_plugin.dll");
    const std::string text = load(notLibrary, kEntry);
    const std::string dependency = load(kDependent, kEntry);  // needs a search path
    const std::string entry = load(kEntryPlugin, "noSuchEntry");
    EXPECT_TRUE(text.rfind(notLoaded, 0) == 0 && text.size() > notLoaded.size()) << text;
    EXPECT_EQ(text.find("file not found"), std::string::npos) << text;
    EXPECT_TRUE(dependency.rfind(notLoaded, 0) == 0 && dependency != text) << dependency;
    const std::string noEntry =
        "corvane:plugin:symbolNotFound entry point not found: noSuchEntry (";
    EXPECT_TRUE(entry.rfind(noEntry, 0) == 0 && entry.size() > noEntry.size() + 1) << entry;
#if !defined(_WIN32)
    // The system's own words: what is wrong with the file, which library is missing.
    EXPECT_NE(text.find(notLibrary), std::string::npos) << text;
    EXPECT_NE(dependency.find("plugin_dependency"), std::string::npos) << dependency;
    EXPECT_NE(entry.find("noSuchEntry)"), std::string::npos) << entry;
#endif
    PluginReference moved(std::move(reference));
    EXPECT_EQ("corvane:plugin:symbolNotFound " + moved.getLastLoadFailureReason(), entry);
    EXPECT_EQ(reference.getLastLoadFailureReason(), "");  // NOLINT(bugprone-use-after-move)
    moved.load(u(kEntryPlugin), kEntry, u"");
    EXPECT_EQ(moved.getLastLoadFailureReason(), "");
}

// A failed PluginLoader leaves no object to ask: the calling thread keeps
// the reason of its last load.
TEST(PluginLoaderTest, LoadFailureReasonIsPerThreadAndClearedBySuccess) {
    EXPECT_THROW(PluginLoader(std::string("bad\xff"), kEntry, true, u""), KSException);
    EXPECT_EQ(PluginLoader::getLastLoadFailureReason(), "the path is not valid UTF-8 text: bad");
    std::string otherThread = "unset";
    std::thread([&] { otherThread = PluginLoader::getLastLoadFailureReason(); }).join();
    EXPECT_EQ(otherThread, "");
    const PluginLoader loaded(kEntryPlugin, kEntry, true, u"");
    EXPECT_EQ(PluginLoader::getLastLoadFailureReason(), "");
}

}  // namespace
