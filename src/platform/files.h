// Files named by narrow text. Narrow file names in this library are UTF-8 on
// every system; on Windows they reach the system through its wide (UTF-16)
// calls, never through the narrow ones, which would read them in the ANSI
// code page.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

namespace kestrel {
namespace platform {

// The last error for a name that has no exact form in the encoding it must
// be converted to.
extern const std::uint32_t kNameNotConvertible;

// Opens the file name (UTF-8) with the C runtime's mode (narrow, e.g. "w").
// Null on failure, with the reason as the last error (GetLastError); a name
// that is not valid UTF-8 is refused, never opened under another name.
std::FILE* openFile(const char* name, const char* mode);

// Removes the file name (a path as the foundation services give it); a
// directory is left alone. False on failure, with the reason as the last
// error.
bool removeFile(const std::u16string& name);

}  // namespace platform
}  // namespace kestrel
