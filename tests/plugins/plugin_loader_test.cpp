#include <gtest/gtest.h>

#include <fl/filesystem.h>
#include <fl/i18n.h>

#include <string>

#include "kestrel/plugins.h"
#include "support/channel_capture.h"
#include "support/loader_recorder.h"

using kestrel::KSException;
using kestrel::PluginLoader;
using kestrel::ustring;

namespace {

const std::string kPluginDir = KESTREL_TEST_PLUGIN_DIR;

int callEntry(const PluginLoader& loader) {
    return reinterpret_cast<int (*)()>(loader.getEntryPointFcn())();
}

ustring backslashed(std::string text) {
    for (char& c : text) {
        c = c == '/' ? '\\' : c;
    }
    return fl::i18n::to_ustring(text);
}

TEST(PluginLoaderTest, PreProcessPathRewritesTokensSeparatorsAndEnding) {
    const ustring root = fl::filesystem::get_install_path();
    EXPECT_EQ(PluginLoader::preProcessPath(u"$QX_INSTALL_ROOT/bin/$QX_ARCH/x.so", u"/"),
              backslashed(fl::i18n::to_string(root) + "/bin/win64/x"));
    EXPECT_EQ(PluginLoader::preProcessPath(u"C:\\p\\x.dll", u"\\"), u"C:\\p\\x");
    EXPECT_EQ(PluginLoader::preProcessPath(u"C:\\a.b\\x", u"\\"), u"C:\\a");
    EXPECT_EQ(PluginLoader::preProcessPath(u"$qx_arch\\$QX_ARCH\\$QX_ARCH", u"\\"),
              u"$qx_arch\\win64\\$QX_ARCH");
    EXPECT_EQ(PluginLoader::preProcessPath(u"a//b//c", u"//"), u"a\\b\\c");
    EXPECT_EQ(PluginLoader::preProcessPath(u"", u"/"), u"");
    EXPECT_EQ(PluginLoader::preProcessPath(u"a/b", u""), u"a/b");
}

TEST(PluginLoaderTest, LoadsTokenisedPathUnderTheInstallationRoot) {
    // The stand-in finds the build tree's root from where its library lies.
    EXPECT_EQ(fl::i18n::to_string(fl::filesystem::get_install_path()), KESTREL_TEST_INSTALL_ROOT);

    const ustring path = PluginLoader::preProcessPath(
        fl::i18n::to_ustring("$QX_INSTALL_ROOT/" KESTREL_TEST_TOKEN_PLUGIN_DIR
                             "/$QX_ARCH/token_plugin.so"),
        u"/");
    const std::string file =
        KESTREL_TEST_INSTALL_ROOT "/" KESTREL_TEST_TOKEN_PLUGIN_DIR "/win64/token_plugin.dll";
    {
        const PluginLoader loader(path, "kestrelTestEntry", false, u"");
        EXPECT_EQ(callEntry(loader), 42);
    }
    EXPECT_TRUE(kestrel_test::isLibraryLoaded(file));  // unloadOnDestruction was false
}

TEST(PluginLoaderTest, LoadsByNarrowPathAndFreesOnDestruction) {
    kestrel_test::ChannelCapture capture("kestrel::PluginLoader", 8);
    const std::string file = kPluginDir + "/entry_plugin.dll";
    {
        const PluginLoader loader(kPluginDir + "/entry_plugin", "kestrelTestEntry", true, u"");
        EXPECT_EQ(callEntry(loader), 42);
        EXPECT_TRUE(kestrel_test::isLibraryLoaded(file));
    }
    EXPECT_FALSE(kestrel_test::isLibraryLoaded(file));
    EXPECT_EQ(
        capture.lines(),
        (std::vector<kestrel_test::ChannelLine>{
            {8, "load: pluginPath: " + kPluginDir +
                    "/entry_plugin, pluginEntryPoint: kestrelTestEntry, libraryLoadSearchPath: "},
            {8, "attemptLoad: filePath: " + file}}));

    try {
        const PluginLoader missing(kPluginDir + "/missing", "kestrelTestEntry", true, u"");
        FAIL() << "a loader exists without its plugin";
    } catch (const KSException& e) {
        EXPECT_STREQ(e.getID(), "corvane:plugin:pluginNotLoaded");
    }
}

}  // namespace
