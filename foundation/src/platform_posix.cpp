// POSIX side of the foundation services: locating the library through the
// dynamic loader, UTF-8 paths with backslashes read as separators, and
// exclusive creation of temporary files with mkstemps.
#include <dlfcn.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <vector>

#include "internal.h"

namespace fl {
namespace platform {

namespace {

// Any object of this library will do: dladdr maps its address back to the
// file the library was loaded from.
const char kAnchor = 0;

std::string native_text(const ustring& text) {
    std::string narrow = i18n::to_string(text);
    std::replace(narrow.begin(), narrow.end(), '\\', '/');
    return narrow;
}

}  // namespace

std::filesystem::path library_file() {
    Dl_info info{};
    if (::dladdr(&kAnchor, &info) == 0 || info.dli_fname == nullptr || *info.dli_fname == '\0') {
        throw std::runtime_error("fl::filesystem: cannot locate the foundation library");
    }
    return std::filesystem::absolute(info.dli_fname).lexically_normal();
}

std::filesystem::path native_path(const ustring& path) {
    return native_text(path);
}

ustring from_native(const std::filesystem::path& path) {
    return i18n::to_ustring(path.native());
}

std::filesystem::path create_unique_file(const std::filesystem::path& directory,
                                         const ustring& prefix, const ustring& suffix,
                                         std::error_code& ec) {
    std::string pattern = directory.native();
    if (!pattern.empty() && pattern.back() != '/') {
        pattern += '/';
    }
    const std::string suffixText = native_text(suffix);
    pattern += native_text(prefix) + "XXXXXX" + suffixText;

    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    const int fd = ::mkstemps(buffer.data(), static_cast<int>(suffixText.size()));
    if (fd < 0) {
        ec.assign(errno, std::generic_category());
        return {};
    }
    ::close(fd);
    ec.clear();
    return std::filesystem::path(buffer.data());
}

}  // namespace platform
}  // namespace fl
