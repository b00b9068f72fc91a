#include <gtest/gtest.h>

#include <fl/i18n.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include "kestrel/plugins.h"
#include "support/channel_capture.h"
#include "support/loader_recorder.h"

using kestrel::KSException;
using kestrel::PluginReference;
using kestrel::ustring;
using kestrel_test::ChannelLine;
using kestrel_test::isLibraryLoaded;
using Calls = std::vector<std::string>;

namespace {

const std::string kPluginDir = KESTREL_TEST_PLUGIN_DIR;
const char* const kEntry = "kestrelTestEntry";

ustring u(const std::string& text) {
    return fl::i18n::to_ustring(text);
}

int callEntry(const kestrel::IPluginReference& reference) {
    return reinterpret_cast<int (*)()>(reference.getEntryPointFcn())();
}

// The exception a load throws (an empty one when it throws none).
KSException loadFailure(PluginReference& reference, const std::string& path,
                        const std::string& entry = kEntry, const std::string& searchPath = "") {
    try {
        reference.load(u(path), entry, u(searchPath));
    } catch (const KSException& e) {
        return e;
    }
    return KSException(nullptr, nullptr);
}

// Calls made after the two SetErrorMode calls of a load in a quiet process.
Calls afterErrorMode(const Calls& calls) {
    return Calls(calls.size() > 2 ? calls.begin() + 2 : calls.end(), calls.end());
}

class RefusingStrategy : public kestrel::IVerificationStrategy {
  public:
    explicit RefusingStrategy(Calls& calls) : _calls(calls) {}
    bool verifyPlugin(const ustring& path) override {
        _calls.push_back("verify " + fl::i18n::to_string(path));
        return false;
    }
    KSException getException(const ustring& path) override {
        _calls.push_back("exception " + fl::i18n::to_string(path));
        return KSException("test:plugin:refused", "refused");
    }

  private:
    Calls& _calls;
};

TEST(PluginReferenceTest, EachFailureThrowsItsIdentifierAndWritesItsLines) {
    kestrel_test::ChannelCapture capture("kestrel::PluginLoader", 0x7FFF);
    kestrel_test::LoaderRecorder loader;
    const std::string missing = kPluginDir + "/missing";
    const std::string notLoaded = "Failure to load the requested plugin: " + missing + ".dll.";
    PluginReference reference(true, std::make_unique<kestrel::NoOpVerificationStrategy>());
    KSException e = loadFailure(reference, missing, kEntry, "/search");
    EXPECT_STREQ(e.getID(), "corvane:plugin:pluginNotLoaded");
    EXPECT_EQ(e.getMessage(), notLoaded);
    EXPECT_EQ(capture.lines(),
              (std::vector<ChannelLine>{
                  {8, "load: pluginPath: " + missing +
                          ", pluginEntryPoint: kestrelTestEntry, libraryLoadSearchPath: /search"},
                  {8, "attemptLoad: filePath: " + missing + ".dll"},
                  {512, "attemptLoad: filePath: " + missing + ".dll doesn't exist"},
                  {8, "After attemptLoad ex.ID: corvane:plugin:pluginNotLoaded, ex.Message: " +
                          notLoaded}}));

    // A refusing strategy is asked once, then for its exception.
    capture.clear();
    Calls asked;
    const std::string plugin = kPluginDir + "/entry_plugin.dll";
    PluginReference refusing(true, std::make_unique<RefusingStrategy>(asked));
    EXPECT_STREQ(loadFailure(refusing, plugin).getID(), "test:plugin:refused");
    EXPECT_EQ(asked, (Calls{"verify " + plugin, "exception " + plugin}));
    EXPECT_EQ(capture.lines().at(2), (ChannelLine{512, "Verification failed!"}));
    EXPECT_TRUE(loader.calls().empty());  // nothing was loaded so far

    // A file that is no library: every loader call fails.
    capture.clear();
    const std::string bogus = testing::TempDir() + "kestrel_bogus_plugin.dll";
    std::ofstream(bogus) << "not a library";
    e = loadFailure(reference, bogus, kEntry, testing::TempDir());
    EXPECT_EQ(e.getMessage(), "Failure to load the requested plugin: " + bogus + ".");
    EXPECT_EQ(capture.lines().at(2), (ChannelLine{512, "loadLibraryAndAddGlobalSymbols failed!"}));
    EXPECT_EQ(afterErrorMode(loader.calls()),
              (Calls{"LoadLibraryW null", "LoadLibraryExW 0x8 null", "LoadLibraryExW 0x1100 null",
                     "AddDllDirectory ok", "LoadLibraryExW 0x400 null"}));

    // A library without the entry point is freed at once, whatever the flag.
    loader.calls().clear();
    capture.clear();
    PluginReference keeping(false, nullptr);
    const std::string noEntry = kPluginDir + "/no_entry_plugin.dll";
    e = loadFailure(keeping, noEntry, "nowhere");
    EXPECT_STREQ(e.getID(), "corvane:plugin:symbolNotFound");
    EXPECT_STREQ(e.getMessage(), "Failure to find the expected plugin entry point: nowhere.");
    EXPECT_EQ(capture.lines().size(), 2u);
    EXPECT_EQ(afterErrorMode(loader.calls()),
              (Calls{"LoadLibraryW ok", "GetProcAddress nowhere null", "FreeLibrary ok"}));
    EXPECT_FALSE(isLibraryLoaded(noEntry));
    EXPECT_EQ(keeping.getEntryPointFcn(), nullptr);

    // With the severities disabled nothing is written; the outcome is the same.
    kestrel_test::ChannelCapture quiet("kestrel::PluginLoader", 0);
    EXPECT_EQ(loadFailure(reference, missing).getMessage(), notLoaded);
    EXPECT_TRUE(quiet.lines().empty());
}

TEST(PluginReferenceTest, LoaderCallsStopAtTheFirstModule) {
    // The quiet-error flags are added to the process's mode.
    const std::uint32_t previousMode = kestrel::detail::systemLoaderApi().setErrorMode(0x4);
    kestrel_test::LoaderRecorder loader;
    loader.fail("LoadLibraryW");
    {
        PluginReference reference(true, nullptr);
        reference.load(u(kPluginDir + "/entry_plugin"), kEntry, u("/unused"));
        EXPECT_EQ(callEntry(reference), 42);
    }
    EXPECT_EQ(loader.calls(), (Calls{"SetErrorMode 0x8001", "SetErrorMode 0x8005",
                                     "LoadLibraryW null", "LoadLibraryExW 0x8 ok",
                                     "GetProcAddress kestrelTestEntry ok", "FreeLibrary ok"}));
    kestrel::detail::systemLoaderApi().setErrorMode(previousMode);

    // A refused directory means no user-directory load.
    loader.calls().clear();
    for (const char* label : {"LoadLibraryExW 0x8", "LoadLibraryExW 0x1100", "AddDllDirectory"}) {
        loader.fail(label);
    }
    PluginReference reference(true, nullptr);
    EXPECT_STREQ(loadFailure(reference, kPluginDir + "/entry_plugin", kEntry, "/dir").getID(),
                 "corvane:plugin:pluginNotLoaded");
    EXPECT_EQ(afterErrorMode(loader.calls()),
              (Calls{"LoadLibraryW null", "LoadLibraryExW 0x8 null", "LoadLibraryExW 0x1100 null",
                     "AddDllDirectory null"}));
}

TEST(PluginReferenceTest, DependencyIsFoundThroughTheLibrarySearchPathOnly) {
    kestrel_test::LoaderRecorder loader;
    const std::string plugin = kPluginDir + "/dependent_plugin";
    const std::string searchPath = kPluginDir + "/plugin_deps";
    PluginReference reference(true, nullptr);
    EXPECT_STREQ(loadFailure(reference, plugin).getID(), "corvane:plugin:pluginNotLoaded");
    EXPECT_EQ(afterErrorMode(loader.calls()), (Calls{"LoadLibraryW null", "LoadLibraryExW 0x8 null",
                                                     "LoadLibraryExW 0x1100 null"}));

    loader.calls().clear();
    reference.load(u(plugin), kEntry, u(searchPath));
    EXPECT_EQ(callEntry(reference), 42);
    EXPECT_EQ(afterErrorMode(loader.calls()),
              (Calls{"LoadLibraryW null", "LoadLibraryExW 0x8 null", "LoadLibraryExW 0x1100 null",
                     "AddDllDirectory ok", "LoadLibraryExW 0x400 ok",
                     "GetProcAddress kestrelTestEntry ok"}));

    // The dependency's exports are not the plugin's.
    PluginReference other(true, nullptr);
    EXPECT_STREQ(loadFailure(other, plugin, "kestrelDependencyValue", searchPath).getID(),
                 "corvane:plugin:symbolNotFound");
}

TEST(PluginReferenceTest, EndingOwnershipAndMovesDecideWhatIsTriedAndFreed) {
    kestrel_test::ChannelCapture capture("kestrel::PluginLoader", 512);
    PluginReference reference(true, nullptr);
    for (const char* path : {"dir/a.DLL", "", "b.dll"}) {
        loadFailure(reference, path);
    }
    EXPECT_EQ(capture.lines(),
              (std::vector<ChannelLine>{{512, "attemptLoad: filePath: dir/a.DLL.dll doesn't exist"},
                                        {512, "attemptLoad: filePath: .dll doesn't exist"},
                                        {512, "attemptLoad: filePath: b.dll doesn't exist"}}));

    // Two loads of one library: each reference frees its own.
    const std::string path = kPluginDir + "/entry_plugin.dll";
    const kestrel::UnsignedPluginFactory factory;
    auto first = factory.loadPlugin(u(path), kEntry, true, u(""));
    auto second = factory.loadPlugin(u(path), kEntry, true, u(""));
    first.reset();
    EXPECT_EQ(callEntry(*second), 42);
    second.reset();
    EXPECT_FALSE(isLibraryLoaded(path));

    // A moved-from reference frees nothing; the new owner frees once.
    kestrel_test::LoaderRecorder loader;
    {
        PluginReference original(true, nullptr);
        original.load(u(path), kEntry, u(""));
        const PluginReference moved(std::move(original));
        EXPECT_EQ(original.getEntryPointFcn(), nullptr);  // NOLINT(bugprone-use-after-move)
        EXPECT_EQ(callEntry(moved), 42);
    }
    EXPECT_EQ(std::count(loader.calls().begin(), loader.calls().end(), "FreeLibrary ok"), 1);
    EXPECT_FALSE(isLibraryLoaded(path));

    kestrel::NoOpVerificationStrategy strategy;
    EXPECT_TRUE(strategy.verifyPlugin(u"/no/such/file.dll"));
    EXPECT_STREQ(strategy.getException(u"").getMessage(),
                 "Failure to load the requested plugin: .");
}

}  // namespace
