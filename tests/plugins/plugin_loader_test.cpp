#include <gtest/gtest.h>

#include <string>

#include "kestrel/plugins.h"
#include "support/channel_capture.h"
#include "support/os.h"

using kestrel::KSException;
using kestrel::PluginLoader;
using kestrel::ustring;

TEST(PluginLoaderTest, PreProcessPathRewritesPathsThatLoadAndStayLoadedWhenAsked) {
    EXPECT_EQ(PluginLoader::preProcessPath(u"C:\\p.q\\x.dll", u"\\"), u"C:\\p.q\\x");
    EXPECT_EQ(PluginLoader::preProcessPath(u"C:\\a.b\\x", u"\\"), u"C:\\a");
    EXPECT_EQ(PluginLoader::preProcessPath(u"$qx_arch/$QX_ARCH/$QX_ARCH", u"/"),
              u"$qx_arch\\win64\\$QX_ARCH");
    EXPECT_EQ(PluginLoader::preProcessPath(u"a//b//c", u"//"), u"a\\b\\c");

    const char* const entry = "kestrelTestEntry";
    const ustring tokenised = PluginLoader::preProcessPath(
        u"$QX_INSTALL_ROOT/" KESTREL_TEST_TOKEN_PLUGIN_DIR "/$QX_ARCH/token_plugin.so", u"/");
    EXPECT_EQ(reinterpret_cast<int (*)()>(
                  PluginLoader(tokenised, entry, false, u"").getEntryPointFcn())(),
              42);
    EXPECT_TRUE(kestrel_test::isLibraryLoaded(
        KESTREL_TEST_INSTALL_ROOT "/" KESTREL_TEST_TOKEN_PLUGIN_DIR "/win64/token_plugin.dll"));
    const kestrel_test::ChannelCapture quiet("kestrel::PluginLoader", 0);
    EXPECT_THROW(PluginLoader(std::string(KESTREL_TEST_PLUGIN_DIR) + "/missing", entry, true, u""),
                 KSException);
    EXPECT_TRUE(quiet.lines().empty());  // with its severities masked the channel stays silent
}
