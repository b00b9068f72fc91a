// PluginLoader::preProcessPath: a path without tokens, separators or dots
// comes back unchanged, so an output without them is a fixed point; no
// separator survives; without tokens only the ending goes.
#include <algorithm>
#include <cstddef>
#include <cstdint>

#include <fl/filesystem.h>

#include "fuzz_check.h"
#include "kestrel/plugins.h"

using kestrel::ustring;

namespace {

bool hasToken(const ustring& path) {
    return path.find(u"$QX_INSTALL_ROOT") != ustring::npos ||
           path.find(u"$QX_ARCH") != ustring::npos;
}

bool contains(const ustring& path, const ustring& part) {
    return path.find(part) != ustring::npos;
}

}  // namespace

// Input: the separator's length (0: a backslash), the separator, the path;
// one byte per 16-bit unit.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::size_t separatorLength = std::min<std::size_t>(data[0] % 4, size - 1);
    const ustring separator =
        separatorLength == 0 ? ustring(u"\\") : ustring(data + 1, data + 1 + separatorLength);
    const ustring path(data + 1 + separatorLength, data + size);
    const ustring out = kestrel::PluginLoader::preProcessPath(path, separator);

    const bool plainSeparator = !contains(separator, u"\\");
    FUZZ_CHECK(!plainSeparator || !contains(out, separator));
    FUZZ_CHECK(out.size() <= path.size() + fl::filesystem::get_install_path().size());
    if (!hasToken(path) && (separator == u"\\" || !contains(path, separator))) {
        FUZZ_CHECK(out == path.substr(0, path.rfind(u'.')));
    }
    if (!hasToken(out) && !contains(out, u".") && (plainSeparator || separator == u"\\")) {
        FUZZ_CHECK(kestrel::PluginLoader::preProcessPath(out, separator) == out);
    }
    return 0;
}
