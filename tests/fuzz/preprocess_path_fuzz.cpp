// PluginLoader::preProcessPath: a path without tokens, separators or dots
// comes back unchanged, so an output without them is a fixed point; no
// separator survives; without tokens only the ending goes.
#include <algorithm>
#include <cstddef>
#include <cstdint>

#include <fl/filesystem.h>

#include "fuzz_check.h"
#include "kestrel/plugins.h"

using kestrel::PluginLoader;
using kestrel::ustring;

// Input: the separator's length (0: a backslash), the separator, the path;
// one byte per 16-bit unit.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto has = [](const ustring& s, const ustring& part) { return s.find(part) != s.npos; };
    const auto hasToken = [&](const ustring& s) {
        return has(s, u"$QX_INSTALL_ROOT") || has(s, u"$QX_ARCH");
    };
    const std::size_t length = size > 0 ? std::min<std::size_t>(data[0] % 4, size - 1) : 0;
    const ustring separator = length == 0 ? u"\\" : ustring(data + 1, data + 1 + length);
    const ustring path(data + std::min<std::size_t>(size, 1 + length), data + size);
    const ustring out = PluginLoader::preProcessPath(path, separator);

    const bool plainSeparator = !has(separator, u"\\");
    FUZZ_CHECK(!plainSeparator || !has(out, separator));
    FUZZ_CHECK(out.size() <= path.size() + fl::filesystem::get_install_path().size());
    if (!hasToken(path) && (separator == u"\\" || !has(path, separator))) {
        FUZZ_CHECK(out == path.substr(0, path.rfind(u'.')));
    }
    if (!hasToken(out) && !has(out, u".") && (plainSeparator || separator == u"\\")) {
        FUZZ_CHECK(PluginLoader::preProcessPath(out, separator) == out);
    }
    return 0;
}
