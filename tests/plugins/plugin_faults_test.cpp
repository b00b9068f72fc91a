// A verification strategy that throws: its exception leaves the load
// unchanged, nothing stays loaded, and the reference loads again from
// another thread once the strategy agrees.
#include <gtest/gtest.h>

#include <fl/i18n.h>

#include <string>

#include "kestrel/plugins.h"
#include "support/channel_capture.h"
#include "support/loader_recorder.h"
#include "support/other_thread.h"

namespace {

using kestrel::KSException;
using kestrel::ustring;

// Throws from verifyPlugin, or refuses and throws from getException; agrees
// from its second call on.
class FailingStrategy : public kestrel::IVerificationStrategy {
  public:
    explicit FailingStrategy(bool inGetException) : _inGetException(inGetException) {}
    bool verifyPlugin(const ustring& /*path*/) override {
        if (++_calls == 1 && !_inGetException) {
            throw 7;
        }
        return _calls > 1;
    }
    KSException getException(const ustring& /*path*/) override { throw 42; }

  private:
    bool _inGetException;
    int _calls = 0;
};

TEST(PluginFaultTest, ThrowingStrategyFailsTheLoadAndLeavesTheReferenceUsable) {
    kestrel_test::ChannelCapture capture("kestrel::PluginLoader", 0x7FFF);
    const std::string plugin = KESTREL_TEST_PLUGIN_DIR "/entry_plugin.dll";
    const auto load = [&plugin](kestrel::PluginReference& reference) {
        reference.load(fl::i18n::to_ustring(plugin), "kestrelTestEntry", u"");
    };
    for (const bool inGetException : {false, true}) {
        capture.clear();
        kestrel::PluginReference reference(true, std::make_unique<FailingStrategy>(inGetException));
        int thrown = 0;
        try {
            load(reference);
        } catch (int e) {
            thrown = e;
        }
        EXPECT_EQ(thrown, inGetException ? 42 : 7);  // passed on unchanged
        EXPECT_EQ(reference.getEntryPointFcn(), nullptr);
        EXPECT_FALSE(kestrel_test::isLibraryLoaded(plugin));
        EXPECT_EQ(capture.lines().size(), 2u);  // the load and attempt lines only
        kestrel_test::runOnAnotherThread([&] {
            load(reference);
            EXPECT_EQ(reinterpret_cast<int (*)()>(reference.getEntryPointFcn())(), 42);
        });
        EXPECT_EQ(capture.lines().size(), 4u);
    }
    EXPECT_FALSE(kestrel_test::isLibraryLoaded(plugin));
}

}  // namespace
