#include <gtest/gtest.h>

#include <fl/i18n.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "kestrel/plugins.h"

using kestrel::KSException;
using kestrel::PluginLoader;
using kestrel::PluginReference;
using kestrel::ustring;

namespace {

const std::string kDir = KESTREL_TEST_PLUGIN_DIR;
const char* const kEntry = "kestrelTestEntry";

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// Loads path with a fresh reference; the failure's identifier and the
// reference's reason ("ok" and "" on success).
std::pair<std::string, std::string> load(const std::string& path, const char* entry,
                                         PluginReference& reference) {
    try {
        reference.load(fl::i18n::to_ustring(path), entry, u"");
        return {"ok", reference.getLastLoadFailureReason()};
    } catch (const KSException& e) {
        return {e.getID(), reference.getLastLoadFailureReason()};
    }
}

}  // namespace

// Each kind of failure keeps its fixed exception and says why in the reason;
// the next successful load clears it, and a move takes it along.
TEST(LoadFailureReasonTest, SaysWhyEachLoadFailedAndForgetsItOnSuccess) {
    const std::filesystem::path notLibrary =
        std::filesystem::current_path() / "load_failure_reason_not_a_library.dll";
    std::ofstream(notLibrary) << "just text\n";
    PluginReference reference(true, std::make_unique<kestrel::NoOpVerificationStrategy>());
    EXPECT_EQ(reference.getLastLoadFailureReason(), "");

    const auto missing = load(kDir + "/no_such_plugin", kEntry, reference);
    EXPECT_EQ(missing.first, "corvane:plugin:pluginNotLoaded");
    EXPECT_EQ(missing.second, "file not found: " + kDir + "/no_such_plugin.dll");

    const auto text = load(notLibrary.u8string(), kEntry, reference);
    std::filesystem::remove(notLibrary);
    EXPECT_EQ(text.first, "corvane:plugin:pluginNotLoaded");
    EXPECT_FALSE(text.second.empty());
    EXPECT_FALSE(contains(text.second, "file not found")) << text.second;

    // plugin_dependency sits where only a search path would find it.
    const auto dependency = load(kDir + "/dependent_plugin", kEntry, reference);
    EXPECT_EQ(dependency.first, "corvane:plugin:pluginNotLoaded");
    EXPECT_FALSE(dependency.second.empty());
    EXPECT_NE(dependency.second, text.second);

    const auto entry = load(kDir + "/entry_plugin", "noSuchEntry", reference);
    EXPECT_EQ(entry.first, "corvane:plugin:symbolNotFound");
    EXPECT_EQ(entry.second.rfind("entry point not found: noSuchEntry (", 0), 0u) << entry.second;
    EXPECT_GT(entry.second.size(), std::string("entry point not found: noSuchEntry ()").size());
#if !defined(_WIN32)
    // The system's own words: what is wrong with the file, and which
    // library is missing.
    EXPECT_TRUE(contains(text.second, notLibrary.u8string())) << text.second;
    EXPECT_TRUE(contains(dependency.second, "plugin_dependency")) << dependency.second;
    EXPECT_TRUE(contains(entry.second, "noSuchEntry)")) << entry.second;
#endif

    PluginReference moved(std::move(reference));
    EXPECT_EQ(moved.getLastLoadFailureReason(), entry.second);
    EXPECT_EQ(reference.getLastLoadFailureReason(), "");  // NOLINT(bugprone-use-after-move)

    EXPECT_EQ(load(kDir + "/entry_plugin", kEntry, moved),
              std::make_pair(std::string("ok"), std::string()));
}

// A failed PluginLoader leaves no object to ask: the calling thread keeps
// the reason of its last load.
TEST(LoadFailureReasonTest, PluginLoaderReasonIsPerThreadAndClearedBySuccess) {
    const std::string missing = kDir + "/no_such_plugin";
    EXPECT_THROW(PluginLoader(missing, kEntry, true, u""), KSException);
    EXPECT_EQ(PluginLoader::getLastLoadFailureReason(), "file not found: " + missing + ".dll");
    EXPECT_THROW(PluginLoader(std::string("bad\xff"), kEntry, true, u""), KSException);
    EXPECT_EQ(PluginLoader::getLastLoadFailureReason(), "the path is not valid UTF-8 text: bad");

    std::string otherThread = "unset";
    std::thread([&] { otherThread = PluginLoader::getLastLoadFailureReason(); }).join();
    EXPECT_EQ(otherThread, "");

    const PluginLoader loaded(kDir + "/entry_plugin", kEntry, true, u"");
    EXPECT_EQ(PluginLoader::getLastLoadFailureReason(), "");
}
