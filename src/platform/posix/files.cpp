// POSIX: names go to the system as they are.
#include "platform/files.h"

#include <unistd.h>

#include <cerrno>

#include <boost/locale/encoding_utf.hpp>

namespace kestrel {
namespace platform {

const std::uint32_t kNameNotConvertible = EILSEQ;

std::FILE* openFile(const char* name, const char* mode) {
    return std::fopen(name, mode);
}

bool removeFile(const std::u16string& name) {
    // The foundation services hand paths to the system as UTF-8.
    const std::string narrow = boost::locale::conv::utf_to_utf<char>(name);
    return ::unlink(narrow.c_str()) == 0;  // refuses directories
}

}  // namespace platform
}  // namespace kestrel
