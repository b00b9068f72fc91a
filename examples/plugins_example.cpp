// Plugins: load a plugin library by path and call its entry point.
//
// Plugin paths are written with the tokens "$QX_INSTALL_ROOT" (the
// installation root) and "$QX_ARCH" (the architecture, "win64"). A host runs
// them through PluginLoader::preProcessPath(), then constructs a
// PluginLoader, which loads the library (adding ".dll") and resolves the
// entry point; the loader keeps the library until it is destroyed. Every
// failure is a KSException with an identifier.
#include <fl/i18n.h>
#include <kestrel/kestrel.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

// The entry point's type, as the plugin defines it.
using HelloFcn = const char* (*)();

// Loads path, expecting the failure `expectedId`; true when it came.
bool failsWith(const std::string& path, const char* entryPoint, const char* expectedId) {
    try {
        const kestrel::PluginLoader plugin(path, entryPoint, true, u"");
        std::printf("unexpectedly loaded %s\n", path.c_str());
        return false;
    } catch (const kestrel::KSException& e) {
        // The exception's text is fixed; the reason adds what went wrong.
        std::printf("  %s\n    %s\n    reason: %s\n", e.getID(), e.getMessage(),
                    kestrel::PluginLoader::getLastLoadFailureReason().c_str());
        return std::strcmp(e.getID(), expectedId) == 0;
    }
}

}  // namespace

int main() {
    // demo_plugin.dll lies in <root>/lib/kestrel/plugins/win64/, both in the
    // build tree and under the installation prefix.
    const std::string tokenised =
        "$QX_INSTALL_ROOT/" KESTREL_PLUGIN_DIR "/$QX_ARCH/demo_plugin.dll";
    // "/" is the separator used above; the result uses backslashes and has
    // no ending.
    const kestrel::ustring path =
        kestrel::PluginLoader::preProcessPath(fl::i18n::to_ustring(tokenised), u"/");
    std::printf("%s\n  resolves to %s\n", tokenised.c_str(), fl::i18n::to_string(path).c_str());

    try {
        const kestrel::PluginLoader plugin(path, "kestrelDemoPluginHello",
                                           /*unloadOnDestruction=*/true,
                                           /*libraryLoadSearchPath=*/u"");
        const auto hello = reinterpret_cast<HelloFcn>(plugin.getEntryPointFcn());
        std::printf("  the entry point says: %s\n", hello());
    } catch (const kestrel::KSException& e) {
        std::fprintf(stderr, "cannot load the plugin: %s: %s\n", e.getID(), e.getMessage());
        return 1;
    }  // the loader unloads the library here

    // Failures are also reported on the diagnostic channel
    // "kestrel::PluginLoader" (a Boost.Log source; failures are enabled by
    // default). Unless the host routes them itself (docs/diagnostics.md),
    // those lines go to standard error.
    std::printf("failures:\n");
    const std::string plugin = fl::i18n::to_string(path);
    const bool missing =
        failsWith("/no/such/plugin", "kestrelDemoPluginHello", "corvane:plugin:pluginNotLoaded");
    const bool noEntry = failsWith(plugin, "noSuchEntry", "corvane:plugin:symbolNotFound");
    return missing && noEntry ? 0 : 1;
}
