// Loads a test plugin through a plugin reference and tells how it went.
#pragma once

#include <fl/i18n.h>

#include <filesystem>
#include <string>

#include "kestrel/plugins.h"

namespace kestrel_test {

// Where the test plugins are built (KESTREL_TEST_PLUGIN_DIR: see tests/plugins).
inline const std::string kPluginDir = KESTREL_TEST_PLUGIN_DIR;
inline const char* const kPluginEntry = "kestrelTestEntry";
inline const char* const kNotLoaded = "corvane:plugin:pluginNotLoaded";

// The identifier load() threw, or "loaded <entry point's answer>".
inline std::string loadOutcome(const kestrel::ustring& path,
                               const kestrel::ustring& searchPath = u"") {
    try {
        kestrel::PluginReference reference(true, nullptr);
        reference.load(path, kPluginEntry, searchPath);
        return "loaded " +
               std::to_string(reinterpret_cast<int (*)()>(reference.getEntryPointFcn())());
    } catch (const kestrel::KSException& e) {
        return e.getID();
    }
}

inline kestrel::ustring u(const std::filesystem::path& path) {
    return fl::i18n::to_ustring(path.u8string());
}

}  // namespace kestrel_test
