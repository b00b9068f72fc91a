#include "fl/filesystem.h"

#include <vector>

#include "internal.h"

#ifndef FL_RELATIVE_LIBDIR
#define FL_RELATIVE_LIBDIR "lib"
#endif

namespace fl {
namespace filesystem {

namespace {

bool isAccessError(const std::error_code& ec) {
    return ec == std::errc::permission_denied || ec == std::errc::operation_not_permitted ||
           ec == std::errc::read_only_file_system;
}

// The library lives in <root>/<libdir>, both in the build tree and once
// installed; libdir may have several components (lib/x86_64-linux-gnu). A
// library found anywhere else takes the parent of its directory as root.
std::filesystem::path installRootOf(const std::filesystem::path& libraryFile) {
    const std::filesystem::path directory = libraryFile.parent_path();
    const std::filesystem::path libdir(FL_RELATIVE_LIBDIR);
    if (libdir.is_relative() && !libdir.empty()) {
        const std::vector<std::filesystem::path> parts(libdir.begin(), libdir.end());
        std::filesystem::path candidate = directory;
        bool inLibdir = true;
        for (auto part = parts.rbegin(); part != parts.rend() && inLibdir; ++part) {
            inLibdir = candidate.filename() == *part;
            candidate = candidate.parent_path();
        }
        if (inLibdir) {
            return candidate;
        }
    }
    return directory.parent_path();
}

}  // namespace

ustring get_install_path() {
    static const ustring root = platform::from_native(installRootOf(platform::library_file()));
    return root;
}

bool exists(const ustring& path) {
    std::error_code ec;
    return !path.empty() && std::filesystem::exists(platform::native_path(path), ec);
}

ustring temp_directory_name() {
    std::error_code ec;
    std::filesystem::path directory = std::filesystem::temp_directory_path(ec);
    // Windows' GetTempPathW ends the directory with a separator; a root keeps
    // its own.
    if (!ec && !directory.has_filename() && directory.has_relative_path()) {
        directory = directory.parent_path();
    }
    if (ec) {
        if (isAccessError(ec)) {
            throw AccessDenied("fl::filesystem::temp_directory_name", directory, ec);
        }
        throw std::filesystem::filesystem_error("fl::filesystem::temp_directory_name", directory,
                                                ec);
    }
    return platform::from_native(directory);
}

ustring tmpnam(const ustring& directory, const ustring& prefix, const ustring& suffix) {
    const std::filesystem::path nativeDirectory = platform::native_path(directory);
    std::error_code ec;
    const std::filesystem::path file =
        platform::create_unique_file(nativeDirectory, prefix, suffix, ec);
    if (ec) {
        if (isAccessError(ec)) {
            throw AccessDenied("fl::filesystem::tmpnam", nativeDirectory, ec);
        }
        throw std::filesystem::filesystem_error("fl::filesystem::tmpnam", nativeDirectory, ec);
    }
    return platform::from_native(file);
}

AccessDenied::AccessDenied(const std::string& what, const std::filesystem::path& path,
                           std::error_code code)
    : std::filesystem::filesystem_error(what, path, code) {}

AccessDenied::~AccessDenied() = default;

codecvt_ustring_to_narrow_string::codecvt_ustring_to_narrow_string(bool lenient)
    : _lenient(lenient) {}

codecvt_ustring_to_narrow_string::~codecvt_ustring_to_narrow_string() = default;

std::string codecvt_ustring_to_narrow_string::convert(const ustring& text) const {
    return i18n::detail::to_string(text, !_lenient);
}

}  // namespace filesystem
}  // namespace fl
