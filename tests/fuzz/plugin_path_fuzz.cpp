// Plugin paths as callers give them, UTF-16 or narrow: a path is looked up
// and handed to the loader only when it converts exactly, and then as an
// absolute path that is the given one with ".dll" (behind the current
// directory when it was relative); loading fails only with the plugin's own
// exception. The loader calls are replaced: nothing is ever loaded.
#include <fl/i18n.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

#include "fuzz_check.h"
#include "kestrel/plugins.h"
#include "plugins/loader_api.h"

using kestrel::ustring;

namespace {

// The current directory, as relative paths are completed: with a slash.
ustring currentDirectory;

// What the last load handed to the loader calls.
std::wstring handedPath;
bool handed = false;

const kestrel::detail::LoaderApi noLoader = {
    [](std::uint32_t mode) { return mode; },
    [](const wchar_t* path) -> void* {
        handed = true;
        handedPath = path;
        return nullptr;
    },
    [](const wchar_t*, void*, std::uint32_t) -> void* { return nullptr; },
    [](const wchar_t*) -> void* { return nullptr; },
    [](void*, const char*) -> void* { return nullptr; },
    [](void*) { return false; },
};

// Valid UTF-16 without a zero unit (where the system would stop reading).
bool validUtf16(const ustring& text) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char16_t c = text[i];
        if (c >= 0xD800 && c < 0xDC00 && i + 1 < text.size() && text[i + 1] >= 0xDC00 &&
            text[i + 1] < 0xE000) {
            ++i;
        } else if ((c >= 0xD800 && c < 0xE000) || c == 0) {
            return false;
        }
    }
    return true;
}

}  // namespace

// An existing plugin file that inputs can name: the loader calls are reached
// only for a path where something exists.
const char* const kExisting = "/tmp/kestrel-plugin-path-fuzz/p.dll";

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    std::filesystem::create_directories(std::filesystem::path(kExisting).parent_path());
    std::ofstream(kExisting).put('x');
    currentDirectory = fl::i18n::to_ustring(std::filesystem::current_path().u8string());
    if (currentDirectory.back() != u'/') {
        currentDirectory += u'/';
    }
    return 0;
}

// Input: a mode byte (even: the rest as UTF-16 units, two bytes each; odd:
// the rest as narrow text for the narrow PluginLoader constructor).
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    kestrel::detail::setLoaderApiForTesting(&noLoader);
    handed = false;
    ustring path;
    bool exact = true;
    try {
        if (data[0] % 2 == 0) {
            for (std::size_t i = 1; i + 1 < size; i += 2) {
                path += static_cast<char16_t>(data[i] | data[i + 1] << 8);
            }
            exact = validUtf16(path);
            const kestrel::PluginLoader loader(path, "entry", true, u"/search");
        } else {
            const std::string narrow(reinterpret_cast<const char*>(data + 1), size - 1);
            path = fl::i18n::to_ustring(narrow);
            exact = fl::i18n::to_string(path) == narrow && validUtf16(path);
            const kestrel::PluginLoader loader(narrow, "entry", true, u"/search");
        }
        const bool loadedWithoutLoader = true;
        FUZZ_CHECK(!loadedWithoutLoader);
    } catch (const kestrel::KSException& e) {
        FUZZ_CHECK(std::string(e.getID()) == "corvane:plugin:pluginNotLoaded");
    }
    kestrel::detail::setLoaderApiForTesting(nullptr);
    FUZZ_CHECK(exact || !handed);
    if (handed) {
        const ustring given = fl::i18n::to_ustring(handedPath);
        const bool endsWithDll = path.size() >= 4 && path.compare(path.size() - 4, 4, u".dll") == 0;
        const ustring withDll = endsWithDll ? path : path + u".dll";
        // A backslash is a separator on every system, so a path that starts
        // with one starts at the root, as one with a slash does; both are
        // handed over unchanged.
        const bool rooted = !path.empty() && (path.front() == u'/' || path.front() == u'\\');
        FUZZ_CHECK(given == (rooted ? withDll : currentDirectory + withDll));
    }
    return 0;
}
