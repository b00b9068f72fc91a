// Helpers shared by the stand-in's sources (not installed).
#pragma once

#include <filesystem>
#include <string>
#include <system_error>

#include "fl/i18n.h"

namespace fl {
namespace i18n {
namespace detail {

// UTF-16 to UTF-8; strict conversion throws conversion_error on invalid input.
std::string to_string(const ustring& text, bool strict);

}  // namespace detail
}  // namespace i18n

// The operating-system side of the services. One implementation per system:
// platform_posix.cpp (and, later, platform_win32.cpp).
namespace platform {

// The absolute path of the file this library was loaded from; throws
// std::runtime_error when the system cannot tell.
std::filesystem::path library_file();

// A ustring path (or name) in the form the operating system takes.
std::filesystem::path native_path(const ustring& path);

// The ustring form of an operating-system path.
ustring from_native(const std::filesystem::path& path);

// Creates a new file directory/prefix<random>suffix exclusively and closes
// it. Returns its path, or sets ec and returns an empty path.
std::filesystem::path create_unique_file(const std::filesystem::path& directory,
                                         const ustring& prefix, const ustring& suffix,
                                         std::error_code& ec);

}  // namespace platform
}  // namespace fl
