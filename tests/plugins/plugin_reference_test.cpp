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
using kestrel_test::ChannelCapture;
using kestrel_test::ChannelLine;
using kestrel_test::isLibraryLoaded;
using kestrel_test::LoaderRecorder;
using Calls = std::vector<std::string>;
using Lines = std::vector<ChannelLine>;

namespace {

const std::string kPluginDir = KESTREL_TEST_PLUGIN_DIR;
const char* const kEntry = "kestrelTestEntry";
const unsigned int kAllSeverities = 0x7FFF;

ustring u(const std::string& text) {
    return fl::i18n::to_ustring(text);
}

int callEntry(const kestrel::IPluginReference& reference) {
    return reinterpret_cast<int (*)()>(reference.getEntryPointFcn())();
}

// Loads and returns the exception it throws (or an empty one).
KSException loadFailure(PluginReference& reference, const std::string& path,
                        const std::string& entry = kEntry, const std::string& searchPath = "") {
    try {
        reference.load(u(path), entry, u(searchPath));
    } catch (const KSException& e) {
        return e;
    }
    return KSException(nullptr, nullptr);
}

class RefusingStrategy : public kestrel::IVerificationStrategy {
  public:
    explicit RefusingStrategy(std::vector<std::string>& calls) : _calls(calls) {}
    bool verifyPlugin(const ustring& path) override {
        _calls.push_back("verify " + fl::i18n::to_string(path));
        return false;
    }
    KSException getException(const ustring& path) override {
        _calls.push_back("exception " + fl::i18n::to_string(path));
        return KSException("test:plugin:refused", "refused %s", fl::i18n::to_string(path).c_str());
    }

  private:
    std::vector<std::string>& _calls;
};

const Calls kQuietErrorMode = {"SetErrorMode 0x8001", "SetErrorMode 0x8001"};

Calls concat(Calls head, const Calls& tail) {
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

TEST(PluginReferenceTest, EachFailureThrowsItsIdentifierAndWritesItsLines) {
    ChannelCapture capture("kestrel::PluginLoader", kAllSeverities);
    LoaderRecorder loader;
    const std::string missing = kPluginDir + "/missing";
    const std::string notLoaded = "Failure to load the requested plugin: " + missing + ".dll.";

    PluginReference reference(true, std::make_unique<kestrel::NoOpVerificationStrategy>());
    KSException e = loadFailure(reference, missing, kEntry, "/search");
    EXPECT_STREQ(e.getID(), "corvane:plugin:pluginNotLoaded");
    EXPECT_EQ(e.getMessage(), notLoaded);
    EXPECT_EQ(
        capture.lines(),
        (Lines{{8, "load: pluginPath: " + missing +
                       ", pluginEntryPoint: kestrelTestEntry, libraryLoadSearchPath: /search"},
               {8, "attemptLoad: filePath: " + missing + ".dll"},
               {512, "attemptLoad: filePath: " + missing + ".dll doesn't exist"},
               {8, "After attemptLoad ex.ID: corvane:plugin:pluginNotLoaded, ex.Message: " +
                       notLoaded}}));
    EXPECT_TRUE(loader.calls().empty());

    // A refusing strategy: asked once, then asked for its exception; nothing is loaded.
    capture.clear();
    std::vector<std::string> strategyCalls;
    PluginReference refusing(true, std::make_unique<RefusingStrategy>(strategyCalls));
    const std::string entryPlugin = kPluginDir + "/entry_plugin.dll";
    e = loadFailure(refusing, entryPlugin);
    EXPECT_STREQ(e.getID(), "test:plugin:refused");
    EXPECT_EQ(e.getMessage(), "refused " + entryPlugin);
    EXPECT_EQ(strategyCalls, (Calls{"verify " + entryPlugin, "exception " + entryPlugin}));
    ASSERT_EQ(capture.lines().size(), 4u);
    EXPECT_EQ(capture.lines()[2], (ChannelLine{512, "Verification failed!"}));
    EXPECT_TRUE(loader.calls().empty());
    EXPECT_EQ(refusing.getEntryPointFcn(), nullptr);

    // A file that is no library: every loader call fails.
    capture.clear();
    const std::string bogus = testing::TempDir() + "kestrel_bogus_plugin.dll";
    std::ofstream(bogus) << "not a library";
    e = loadFailure(reference, bogus, kEntry, testing::TempDir());
    EXPECT_STREQ(e.getID(), "corvane:plugin:pluginNotLoaded");
    EXPECT_EQ(e.getMessage(), "Failure to load the requested plugin: " + bogus + ".");
    EXPECT_EQ(capture.lines()[2], (ChannelLine{512, "loadLibraryAndAddGlobalSymbols failed!"}));
    EXPECT_EQ(loader.calls(),
              concat(kQuietErrorMode,
                     {"LoadLibraryW null", "LoadLibraryExW 0x8 null", "LoadLibraryExW 0x1100 null",
                      "AddDllDirectory ok", "LoadLibraryExW 0x400 null"}));

    // A library without the entry point is freed at once, whatever the flag says.
    loader.clear();
    capture.clear();
    PluginReference keeping(false, nullptr);
    const std::string noEntry = kPluginDir + "/no_entry_plugin.dll";
    e = loadFailure(keeping, noEntry, "nowhere");
    EXPECT_STREQ(e.getID(), "corvane:plugin:symbolNotFound");
    EXPECT_STREQ(e.getMessage(), "Failure to find the expected plugin entry point: nowhere.");
    EXPECT_EQ(capture.lines().size(), 2u);
    EXPECT_EQ(loader.calls(),
              concat(kQuietErrorMode,
                     {"LoadLibraryW ok", "GetProcAddress nowhere null", "FreeLibrary ok"}));
    EXPECT_FALSE(isLibraryLoaded(noEntry));
    EXPECT_EQ(keeping.getEntryPointFcn(), nullptr);

    // With the severities disabled nothing is written and the outcome is the same.
    ChannelCapture quiet("kestrel::PluginLoader", 0);
    e = loadFailure(reference, missing);
    EXPECT_EQ(e.getMessage(), notLoaded);
    EXPECT_TRUE(quiet.lines().empty());
}

TEST(PluginReferenceTest, LoaderCallsStopAtTheFirstModule) {
    LoaderRecorder loader;
    loader.fail("LoadLibraryW");
    {
        PluginReference reference(true, nullptr);
        reference.load(u(kPluginDir + "/entry_plugin"), kEntry, u("/unused"));
        EXPECT_EQ(callEntry(reference), 42);
    }
    EXPECT_EQ(loader.calls(),
              concat(kQuietErrorMode, {"LoadLibraryW null", "LoadLibraryExW 0x8 ok",
                                       "GetProcAddress kestrelTestEntry ok", "FreeLibrary ok"}));

    // A refused directory means no user-directory load.
    loader.clear();
    for (const char* label : {"LoadLibraryExW 0x8", "LoadLibraryExW 0x1100", "AddDllDirectory"}) {
        loader.fail(label);
    }
    PluginReference reference(true, nullptr);
    EXPECT_STREQ(loadFailure(reference, kPluginDir + "/entry_plugin", kEntry, "/dir").getID(),
                 "corvane:plugin:pluginNotLoaded");
    EXPECT_EQ(loader.calls(),
              concat(kQuietErrorMode, {"LoadLibraryW null", "LoadLibraryExW 0x8 null",
                                       "LoadLibraryExW 0x1100 null", "AddDllDirectory null"}));
}

TEST(PluginReferenceTest, DependencyIsFoundThroughTheLibrarySearchPathOnly) {
    LoaderRecorder loader;
    const std::string plugin = kPluginDir + "/dependent_plugin";
    PluginReference reference(true, nullptr);
    EXPECT_STREQ(loadFailure(reference, plugin).getID(), "corvane:plugin:pluginNotLoaded");
    EXPECT_EQ(loader.calls(),
              concat(kQuietErrorMode, {"LoadLibraryW null", "LoadLibraryExW 0x8 null",
                                       "LoadLibraryExW 0x1100 null"}));

    loader.clear();
    reference.load(u(plugin), kEntry, u(kPluginDir + "/plugin_deps"));
    EXPECT_EQ(callEntry(reference), 42);
    EXPECT_EQ(
        loader.calls(),
        concat(kQuietErrorMode, {"LoadLibraryW null", "LoadLibraryExW 0x8 null",
                                 "LoadLibraryExW 0x1100 null", "AddDllDirectory ok",
                                 "LoadLibraryExW 0x400 ok", "GetProcAddress kestrelTestEntry ok"}));
}

TEST(PluginReferenceTest, EndingOwnershipAndMovesDecideWhatIsTriedAndFreed) {
    ChannelCapture capture("kestrel::PluginLoader", 512);
    PluginReference reference(true, nullptr);
    for (const std::string& path :
         {std::string("dir/a.DLL"), std::string(""), std::string("b.dll")}) {
        loadFailure(reference, path);
    }
    EXPECT_EQ(capture.lines(), (Lines{{512, "attemptLoad: filePath: dir/a.DLL.dll doesn't exist"},
                                      {512, "attemptLoad: filePath: .dll doesn't exist"},
                                      {512, "attemptLoad: filePath: b.dll doesn't exist"}}));

    // Two loads of one library: each reference frees its own.
    const std::string path = kPluginDir + "/entry_plugin.dll";
    const kestrel::UnsignedPluginFactory factory;
    auto first = factory.loadPlugin(u(path), kEntry, true, u(""));
    auto second = factory.loadPlugin(u(path), kEntry, true, u(""));
    EXPECT_EQ(callEntry(*first), 42);
    first.reset();
    EXPECT_TRUE(isLibraryLoaded(path));
    EXPECT_EQ(callEntry(*second), 42);
    second.reset();
    EXPECT_FALSE(isLibraryLoaded(path));

    // A moved-from reference frees nothing; the new owner frees once.
    LoaderRecorder loader;
    {
        PluginReference original(true, nullptr);
        original.load(u(path), kEntry, u(""));
        PluginReference moved(std::move(original));
        EXPECT_EQ(original.getEntryPointFcn(), nullptr);  // NOLINT(bugprone-use-after-move)
        EXPECT_EQ(callEntry(moved), 42);
    }
    const Calls calls = loader.calls();
    EXPECT_EQ(calls.back(), "FreeLibrary ok");
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "FreeLibrary ok"), 1);
    EXPECT_FALSE(isLibraryLoaded(path));
}

TEST(NoOpVerificationStrategyTest, AcceptsEverythingAndDescribesARefusal) {
    kestrel::NoOpVerificationStrategy strategy;
    EXPECT_TRUE(strategy.verifyPlugin(u""));
    EXPECT_TRUE(strategy.verifyPlugin(u"/no/such/file.dll"));
    const KSException e = strategy.getException(u"");
    EXPECT_STREQ(e.getID(), "corvane:plugin:pluginNotLoaded");
    EXPECT_STREQ(e.getMessage(), "Failure to load the requested plugin: .");
}

}  // namespace
