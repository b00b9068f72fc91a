#include <gtest/gtest.h>

#include <fl/filesystem.h>
#include <fl/i18n.h>

#include <filesystem>
#include <string>
#include <vector>

#include "kestrel/plugins.h"
#include "support/channel_capture.h"
#include "support/loader_recorder.h"

using kestrel::KSException;
using kestrel::PluginLoader;
using kestrel::ustring;
using kestrel_test::LoaderRecorder;
using Calls = std::vector<std::string>;

namespace {

const std::string kDir = KESTREL_TEST_PLUGIN_DIR;
const char* const kEntry = "kestrelTestEntry";
// A relative path as load() tries it: made absolute against the current
// directory.
const std::string kRelative = (std::filesystem::current_path() / "dir" / "a.DLL.dll").u8string();

TEST(FoundationTest, ConvertsTextAndSkipsInvalidUnitsOnly) {
    const std::string text = u8"Gr\u00FC\u00DFe \u20AC \U0001D11E";
    const ustring utf16 = fl::i18n::to_ustring(text);
    EXPECT_EQ(utf16, u"Gr\u00FC\u00DFe \u20AC \U0001D11E");
    EXPECT_EQ(fl::i18n::to_string(utf16), text);
    EXPECT_EQ(fl::i18n::to_wstring(utf16), L"Gr\u00FC\u00DFe \u20AC \U0001D11E");
    EXPECT_EQ(fl::i18n::to_ustring(std::string("a\xFF-\xC3(")), u"a-(");
    const ustring unpaired = {u'a', char16_t(0xD800), u'b'};
    EXPECT_EQ(fl::i18n::to_string(unpaired), "ab");
    EXPECT_THROW(fl::filesystem::codecvt_ustring_to_narrow_string(false).convert(unpaired),
                 fl::i18n::conversion_error);
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
    std::string path, file, entry, searchPath;  // file: the path tried
    std::string failing;                        // the loader call made to fail
    int strategy;                               // 0: none; else a TestStrategy(strategy)
    std::string failure, failureLine;           // failure: empty on success
    Calls calls;                                // loader and strategy calls, freeing included
};

// Failed loads keep no library even without unloadOnDestruction, and a
// throwing strategy's exception passes out unchanged; loaded plugins are
// moved to another reference and freed with it.
TEST(PluginReferenceTest, EachLoadMakesItsCallsWritesItsLinesAndThrowsItsFailure) {
    const std::string entry = kDir + "/entry_plugin", dll = entry + ".dll";
    const std::string dependent = kDir + "/dependent_plugin", depDll = dependent + ".dll";
    const std::string notLoaded =
        "corvane:plugin:pluginNotLoaded: Failure to load the requested plugin: ";
    const std::string noEntry =
        "corvane:plugin:symbolNotFound: Failure to find the expected plugin entry point: ";
    // In a process whose error mode was 0x2; the loads add 0x8001 to it.
    const Calls plain = {"SetErrorMode 0x8001", "SetErrorMode 0x8003", "LoadLibraryW null",
                         "LoadLibraryExW 0x8 null", "LoadLibraryExW 0x1100 null"};
    const auto loading = [&](int plainCalls, const Calls& more) {
        Calls calls(plain.begin(), plain.begin() + plainCalls);
        calls.insert(calls.end(), more.begin(), more.end());
        return calls;
    };
    // The dependent plugin fails without its search path (or with one that
    // is not absolute) before the directory is added, for good, to the process.
    const std::vector<LoadCase> cases = {
        {"dir/a.DLL", kRelative, kEntry, "/search", "", 1, notLoaded + kRelative + ".",
         "attemptLoad: filePath: " + kRelative + " doesn't exist", Calls{}},
        {dll, dll, kEntry, "", "", 1, "test:plugin:refused: refused", "Verification failed!",
         Calls{"verify " + dll, "exception " + dll}},
        {dll, dll, kEntry, "", "", 7, "throws 7", "", Calls{"verify " + dll}},
        {entry, dll, kEntry, "", "", 42, "throws 42", "",
         Calls{"verify " + dll, "exception " + dll}},
        {entry, dll, "nowhere", "/unused", "LoadLibraryW", 0, noEntry + "nowhere.", "",
         loading(2, {"LoadLibraryW null", "LoadLibraryExW 0x8 ok", "GetProcAddress nowhere null",
                     "FreeLibrary ok"})},
        {dependent, depDll, kEntry, "", "", 0, notLoaded + depDll + ".",
         "loadLibraryAndAddGlobalSymbols failed!", plain},
        {dependent, depDll, kEntry, "relative", "", 0, notLoaded + depDll + ".",
         "loadLibraryAndAddGlobalSymbols failed!", loading(5, {"AddDllDirectory null"})},
        {dependent, depDll, kEntry, kDir + "/plugin_deps", "", 0, "", "",
         loading(5, {"AddDllDirectory ok", "LoadLibraryExW 0x400 ok",
                     "GetProcAddress kestrelTestEntry ok", "FreeLibrary ok"})},
        // The dependency's exports are not the plugin's.
        {dependent, depDll, "kestrelDependencyValue", "", "", 0,
         noEntry + "kestrelDependencyValue.", "",
         loading(4, {"LoadLibraryExW 0x1100 ok", "GetProcAddress kestrelDependencyValue null",
                     "FreeLibrary ok"})},
    };
    kestrel::detail::systemLoaderApi().setErrorMode(0x2);
    for (const LoadCase& c : cases) {
        SCOPED_TRACE(c.path + " " + c.entry + " " + std::to_string(c.strategy));
        kestrel_test::ChannelCapture capture("kestrel::PluginLoader", 0x7FFF);
        LoaderRecorder loader(c.failing);
        std::string id, message, failure;
        try {
            kestrel::PluginReference reference(
                c.failure.empty(),
                c.strategy ? std::make_unique<TestStrategy>(c.strategy) : nullptr);
            reference.load(fl::i18n::to_ustring(c.path), c.entry,
                           fl::i18n::to_ustring(c.searchPath));
            const kestrel::PluginReference moved(std::move(reference));
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
}

TEST(PluginLoaderTest, PreProcessPathRewritesPathsThatLoadAndStayLoadedWhenAsked) {
    EXPECT_EQ(PluginLoader::preProcessPath(u"C:\\p.q\\x.dll", u"\\"), u"C:\\p.q\\x");
    EXPECT_EQ(PluginLoader::preProcessPath(u"C:\\a.b\\x", u"\\"), u"C:\\a");
    EXPECT_EQ(PluginLoader::preProcessPath(u"$qx_arch/$QX_ARCH/$QX_ARCH", u"/"),
              u"$qx_arch\\win64\\$QX_ARCH");
    EXPECT_EQ(PluginLoader::preProcessPath(u"a//b//c", u"//"), u"a\\b\\c");

    const ustring tokenised = PluginLoader::preProcessPath(
        u"$QX_INSTALL_ROOT/" KESTREL_TEST_TOKEN_PLUGIN_DIR "/$QX_ARCH/token_plugin.so", u"/");
    EXPECT_EQ(reinterpret_cast<int (*)()>(
                  PluginLoader(tokenised, kEntry, false, u"").getEntryPointFcn())(),
              42);
    EXPECT_TRUE(kestrel_test::isLibraryLoaded(
        KESTREL_TEST_INSTALL_ROOT "/" KESTREL_TEST_TOKEN_PLUGIN_DIR "/win64/token_plugin.dll"));
    const kestrel_test::ChannelCapture quiet("kestrel::PluginLoader", 0);
    EXPECT_THROW(PluginLoader(kDir + "/missing", kEntry, true, u""), KSException);
    EXPECT_TRUE(quiet.lines().empty());  // with its severities masked the channel stays silent
}

}  // namespace
