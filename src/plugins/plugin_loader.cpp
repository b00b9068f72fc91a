#include <fl/filesystem.h>
#include <fl/i18n.h>

#include "kestrel/plugins.h"
#include "plugins/loader_api.h"

namespace kestrel {

namespace {

// The path tokens callers write into plugin paths.
const std::string installRootToken = "$QX_INSTALL_ROOT";
const std::string architectureToken = "$QX_ARCH";

// What "$QX_ARCH" stands for: the name of the 64-bit build's plugin folders.
const char16_t* const architectureName = u"win64";

void replaceFirst(ustring& text, const ustring& token, const ustring& replacement) {
    const std::size_t position = text.find(token);
    if (position != ustring::npos) {
        text.replace(position, token.size(), replacement);
    }
}

}  // namespace

PluginLoader::PluginLoader(const std::string& pluginPath, const std::string& pluginEntryPoint,
                           bool unloadOnDestruction, const ustring& libraryLoadSearchPath) {
    const ustring path = fl::i18n::to_ustring(pluginPath);
    // The conversion skips what is not UTF-8 (such as text in a Windows code
    // page); a path that does not come back unchanged would be a different
    // path, so it is refused. The message shows what could be converted.
    if (fl::i18n::to_string(path) != pluginPath) {
        detail::setLastLoadFailureReasonOnThread("the path is not valid UTF-8 text: " +
                                                 fl::i18n::to_string(path));
        throw KSException("corvane:plugin:pluginNotLoaded",
                          "Failure to load the requested plugin: %s.",
                          fl::i18n::to_string(path).c_str());
    }
    load(path, pluginEntryPoint, unloadOnDestruction, libraryLoadSearchPath);
}

PluginLoader::PluginLoader(const ustring& pluginPath, const std::string& pluginEntryPoint,
                           bool unloadOnDestruction, const ustring& libraryLoadSearchPath) {
    load(pluginPath, pluginEntryPoint, unloadOnDestruction, libraryLoadSearchPath);
}

PluginLoader::~PluginLoader() = default;

void* PluginLoader::getEntryPointFcn() const {
    return _pluginReference->getEntryPointFcn();
}

void PluginLoader::load(const ustring& pluginPath, const std::string& pluginEntryPoint,
                        bool unloadOnDestruction, const ustring& libraryLoadSearchPath) {
    const UnsignedPluginFactory factory;
    _pluginReference = factory.loadPlugin(pluginPath, pluginEntryPoint, unloadOnDestruction,
                                          libraryLoadSearchPath);
}

std::string PluginLoader::getLastLoadFailureReason() {
    return detail::lastLoadFailureReasonOnThread();
}

ustring PluginLoader::preProcessPath(const ustring& path, const ustring& pathSeparator) {
    const ustring installRoot = fl::filesystem::get_install_path();
    ustring result = path;
    replaceFirst(result, fl::i18n::to_ustring(installRootToken), installRoot);
    replaceFirst(result, fl::i18n::to_ustring(architectureToken), architectureName);

    if (!pathSeparator.empty() && pathSeparator != u"\\") {
        for (std::size_t position = result.find(pathSeparator); position != ustring::npos;
             position = result.find(pathSeparator, position + 1)) {
            // (count, character): GCC 12 at -O2 warns falsely (-Wrestrict) about
            // the replace() that takes a text.
            result.replace(position, pathSeparator.size(), 1, u'\\');
        }
    }
    const std::size_t dot = result.rfind(u'.');
    if (dot != ustring::npos) {
        result.erase(dot);
    }
    return result;
}

}  // namespace kestrel
