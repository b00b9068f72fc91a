#include <gtest/gtest.h>

#include <fl/filesystem.h>
#include <fl/i18n.h>

#include <algorithm>
#include <string>
#include <vector>

#include "kestrel/plugins.h"
#include "platform/dynamic_library.h"
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

TEST(FoundationTest, ConvertsTextAndSkipsInvalidUnitsOnly) {
    const std::string text = u8"Gr\u00FC\u00DFe \u20AC \U0001D11E";
    const ustring utf16 = u"Gr\u00FC\u00DFe \u20AC \U0001D11E";
    EXPECT_EQ(fl::i18n::to_ustring(text), utf16);
    EXPECT_EQ(fl::i18n::to_string(utf16), text);
    EXPECT_EQ(fl::i18n::to_wstring(utf16), L"Gr\u00FC\u00DFe \u20AC \U0001D11E");

    EXPECT_EQ(fl::i18n::to_ustring(std::string("a\xFF-\xC3(")), u"a-(");
    const ustring unpaired = {u'a', char16_t(0xD800), u'b'};
    EXPECT_EQ(fl::i18n::to_string(unpaired), "ab");
    EXPECT_EQ(fl::filesystem::codecvt_ustring_to_narrow_string(true).convert(unpaired), "ab");
    EXPECT_THROW(fl::filesystem::codecvt_ustring_to_narrow_string(false).convert(unpaired),
                 fl::i18n::conversion_error);
}

// The calls of a load in a process whose error mode was 0x2, then more.
Calls loading(const Calls& more) {
    Calls calls = {"SetErrorMode 0x8001", "SetErrorMode 0x8003"};
    calls.insert(calls.end(), more.begin(), more.end());
    return calls;
}

// Refuses every file, noting its calls with the loader calls.
struct RefusingStrategy : kestrel::IVerificationStrategy {
    bool verifyPlugin(const ustring& path) override {
        LoaderRecorder::calls().push_back("verify " + fl::i18n::to_string(path));
        return false;
    }
    KSException getException(const ustring& path) override {
        LoaderRecorder::calls().push_back("exception " + fl::i18n::to_string(path));
        return KSException("test:plugin:refused", "refused");
    }
};

struct LoadCase {
    std::string path, file, entry, searchPath;  // file: the path tried
    Calls failing;                              // loader calls made to fail
    bool refuse;                                // with a RefusingStrategy
    std::string failure, failureLine;           // failure: "<id>: <message>", empty on success
    Calls calls;                                // loader and strategy calls, freeing included
};

// Failed loads keep no library even without unloadOnDestruction; loaded
// plugins are moved to another reference and freed with it.
TEST(PluginReferenceTest, EachLoadMakesItsCallsWritesItsLinesAndThrowsItsFailure) {
    const std::string entry = kDir + "/entry_plugin", dependent = kDir + "/dependent_plugin";
    const std::string notLoaded =
        "corvane:plugin:pluginNotLoaded: Failure to load the requested plugin: ";
    const std::string noEntry =
        "corvane:plugin:symbolNotFound: Failure to find the expected plugin entry point: ";
    const Calls plain = {"LoadLibraryW null", "LoadLibraryExW 0x8 null",
                         "LoadLibraryExW 0x1100 null"};
    // The dependent plugin fails without its search path before the
    // directory is added, for good, to the process.
    const std::vector<LoadCase> cases = {
        {"dir/a.DLL", "dir/a.DLL.dll", kEntry, "/search", Calls{}, true,
         notLoaded + "dir/a.DLL.dll.", "attemptLoad: filePath: dir/a.DLL.dll doesn't exist",
         Calls{}},
        {entry + ".dll", entry + ".dll", kEntry, "", Calls{}, true, "test:plugin:refused: refused",
         "Verification failed!", Calls{"verify " + entry + ".dll", "exception " + entry + ".dll"}},
        {entry, entry + ".dll", "nowhere", "/unused", Calls{"LoadLibraryW"}, false,
         noEntry + "nowhere.", "",
         loading({"LoadLibraryW null", "LoadLibraryExW 0x8 ok", "GetProcAddress nowhere null",
                  "FreeLibrary ok"})},
        {dependent, dependent + ".dll", kEntry, "", Calls{}, false, notLoaded + dependent + ".dll.",
         "loadLibraryAndAddGlobalSymbols failed!", loading(plain)},
        {dependent, dependent + ".dll", kEntry, kDir + "/plugin_deps", Calls{}, false, "", "",
         loading({plain[0], plain[1], plain[2], "AddDllDirectory ok", "LoadLibraryExW 0x400 ok",
                  "GetProcAddress kestrelTestEntry ok", "FreeLibrary ok"})},
        // The dependency's exports are not the plugin's.
        {dependent, dependent + ".dll", "kestrelDependencyValue", "", Calls{}, false,
         noEntry + "kestrelDependencyValue.", "",
         loading({plain[0], plain[1], "LoadLibraryExW 0x1100 ok",
                  "GetProcAddress kestrelDependencyValue null", "FreeLibrary ok"})},
    };
    kestrel::detail::systemLoaderApi().setErrorMode(0x2);  // the loads add 0x8001 to it
    for (const LoadCase& c : cases) {
        SCOPED_TRACE(c.path + " " + c.entry + " " + c.searchPath);
        kestrel_test::ChannelCapture capture("kestrel::PluginLoader", 0x7FFF);
        LoaderRecorder loader;
        std::for_each(c.failing.begin(), c.failing.end(), [&](auto& call) { loader.fail(call); });
        std::string id, message;
        try {
            kestrel::PluginReference reference(
                c.failure.empty(), c.refuse ? std::make_unique<RefusingStrategy>() : nullptr);
            reference.load(fl::i18n::to_ustring(c.path), c.entry,
                           fl::i18n::to_ustring(c.searchPath));
            const kestrel::PluginReference moved(std::move(reference));
            EXPECT_EQ(reference.getEntryPointFcn(), nullptr);  // NOLINT(bugprone-use-after-move)
            EXPECT_EQ(reinterpret_cast<int (*)()>(moved.getEntryPointFcn())(), 42);
        } catch (const KSException& e) {
            id = e.getID();
            message = e.getMessage();
        }
        EXPECT_EQ(id.empty() ? "" : id + ": " + message, c.failure);
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
    // The stand-in finds the installation root from where its library lies.
    EXPECT_EQ(fl::i18n::to_string(fl::filesystem::get_install_path()), KESTREL_TEST_INSTALL_ROOT);
    EXPECT_EQ(PluginLoader::preProcessPath(u"C:\\p\\x.dll", u"\\"), u"C:\\p\\x");
    EXPECT_EQ(PluginLoader::preProcessPath(u"C:\\a.b\\x", u"\\"), u"C:\\a");
    EXPECT_EQ(PluginLoader::preProcessPath(u"$qx_arch/$QX_ARCH/$QX_ARCH", u"/"),
              u"$qx_arch\\win64\\$QX_ARCH");
    EXPECT_EQ(PluginLoader::preProcessPath(u"a//b//c", u"//"), u"a\\b\\c");
    EXPECT_EQ(PluginLoader::preProcessPath(u"", u"/"), u"");

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

// The system's loader calls leave its own error code, for which it has a text.
TEST(PluginReferenceTest, LoaderFailuresLeaveTheSystemsErrorCode) {
    namespace platform = kestrel::platform;
    const kestrel::detail::LoaderApi& os = kestrel::detail::systemLoaderApi();
    const std::uint32_t defaultDirs =
        platform::kLoadLibrarySearchDllLoadDir | platform::kLoadLibrarySearchDefaultDirs;
    const auto wide = [](const std::string& path) {
        return fl::i18n::to_wstring(fl::i18n::to_ustring(kDir + path));
    };
    const auto errorOf = [](void* result) {
        const kestrel_test::ErrorCode error = kestrel_test::lastError();
        EXPECT_EQ(result, nullptr);
        return error;
    };
    os.setErrorMode(os.setErrorMode(0x8001) | 0x8001);  // no dialogs
    // A missing file, a dependency in no searched place, flags that exclude
    // each other, a directory that is not absolute, a symbol not exported.
    EXPECT_EQ(errorOf(os.loadLibraryEx(wide("/missing.dll").c_str(), nullptr, defaultDirs)),
              kestrel_test::kModuleNotFound);
    EXPECT_EQ(errorOf(os.loadLibrary(wide("/dependent_plugin.dll").c_str())),
              kestrel_test::kModuleNotFound);
    const std::wstring plugin = wide("/entry_plugin.dll");
    EXPECT_EQ(errorOf(os.loadLibraryEx(
                  plugin.c_str(), nullptr,
                  platform::kLoadWithAlteredSearchPath | platform::kLoadLibrarySearchDllLoadDir)),
              kestrel_test::kInvalidParameter);
    EXPECT_EQ(errorOf(os.addDllDirectory(L"relative")), kestrel_test::kInvalidParameter);
    void* module = os.loadLibraryEx(plugin.c_str(), nullptr, defaultDirs);
    ASSERT_NE(module, nullptr);
    EXPECT_EQ(errorOf(os.getProcAddress(module, "nowhere")), kestrel_test::kProcedureNotFound);
    EXPECT_TRUE(os.freeLibrary(module));
    for (const kestrel_test::ErrorCode code :
         {kestrel_test::kModuleNotFound, kestrel_test::kProcedureNotFound,
          kestrel_test::kInvalidParameter}) {
        EXPECT_NE(kestrel_test::systemText(code), "") << code;
    }
}

}  // namespace
