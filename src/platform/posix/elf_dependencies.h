// Reading the names of the libraries an ELF file needs (internal to posix/).
#pragma once

#include <string>
#include <vector>

namespace kestrel {
namespace platform {
namespace posix {

// The DT_NEEDED entries of the native-class ELF file at path, in file order.
// Empty for a file that cannot be read or is not such a file.
std::vector<std::string> neededLibraries(const std::string& path);

}  // namespace posix
}  // namespace platform
}  // namespace kestrel
