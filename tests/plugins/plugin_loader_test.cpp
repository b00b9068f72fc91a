#include <gtest/gtest.h>

#include <fl/filesystem.h>
#include <fl/i18n.h>

#include <algorithm>
#include <string>

#include "kestrel/plugins.h"
#include "support/channel_capture.h"
#include "support/loader_recorder.h"

using kestrel::PluginLoader;
using kestrel::ustring;

namespace {

const std::string kPluginDir = KESTREL_TEST_PLUGIN_DIR;

int callEntry(const PluginLoader& loader) {
    return reinterpret_cast<int (*)()>(loader.getEntryPointFcn())();
}

TEST(PluginLoaderTest, PreProcessPathRewritesTokensSeparatorsAndEnding) {
    std::string root = fl::i18n::to_string(fl::filesystem::get_install_path());
    std::replace(root.begin(), root.end(), '/', '\\');
    EXPECT_EQ(PluginLoader::preProcessPath(u"$QX_INSTALL_ROOT/bin/$QX_ARCH/x.so", u"/"),
              fl::i18n::to_ustring(root + "\\bin\\win64\\x"));
    EXPECT_EQ(PluginLoader::preProcessPath(u"C:\\p\\x.dll", u"\\"), u"C:\\p\\x");
    EXPECT_EQ(PluginLoader::preProcessPath(u"C:\\a.b\\x", u"\\"), u"C:\\a");
    EXPECT_EQ(PluginLoader::preProcessPath(u"$qx_arch/$QX_ARCH/$QX_ARCH", u"/"),
              u"$qx_arch\\win64\\$QX_ARCH");
    EXPECT_EQ(PluginLoader::preProcessPath(u"a//b//c", u"//"), u"a\\b\\c");
    EXPECT_EQ(PluginLoader::preProcessPath(u"", u"/"), u"");
}

TEST(PluginLoaderTest, LoadsTokenisedPathUnderTheInstallationRoot) {
    // The stand-in finds the build tree's root from where its library lies.
    EXPECT_EQ(fl::i18n::to_string(fl::filesystem::get_install_path()), KESTREL_TEST_INSTALL_ROOT);
    const ustring path = PluginLoader::preProcessPath(
        u"$QX_INSTALL_ROOT/" KESTREL_TEST_TOKEN_PLUGIN_DIR "/$QX_ARCH/token_plugin.so", u"/");
    {
        const PluginLoader loader(path, "kestrelTestEntry", false, u"");
        EXPECT_EQ(callEntry(loader), 42);
    }
    EXPECT_TRUE(kestrel_test::isLibraryLoaded(KESTREL_TEST_INSTALL_ROOT
                                              "/" KESTREL_TEST_TOKEN_PLUGIN_DIR
                                              "/win64/token_plugin.dll"));  // not unloaded
}

TEST(PluginLoaderTest, LoadsByNarrowPathAndFreesOnDestruction) {
    kestrel_test::ChannelCapture capture("kestrel::PluginLoader", 8);
    const std::string file = kPluginDir + "/entry_plugin.dll";
    {
        const PluginLoader loader(kPluginDir + "/entry_plugin", "kestrelTestEntry", true, u"");
        EXPECT_EQ(callEntry(loader), 42);
    }
    EXPECT_FALSE(kestrel_test::isLibraryLoaded(file));
    EXPECT_EQ(capture.lines().at(1),
              (kestrel_test::ChannelLine{8, "attemptLoad: filePath: " + file}));
    EXPECT_THROW(PluginLoader(kPluginDir + "/missing", "kestrelTestEntry", true, u""),
                 kestrel::KSException);
}

}  // namespace
