// Thread names: the name that debuggers, profilers and system tools show for
// a thread, given by the thread to itself.
#pragma once

#include <cstddef>
#include <string>

namespace kestrel {
namespace platform {

// The longest name Linux keeps, in bytes, without the terminating NUL.
constexpr std::size_t kLinuxThreadNameBytes = 15;

// Gives the calling thread name (UTF-8). Where the system keeps fewer bytes
// (15 on Linux), the name is cut at the last character boundary that fits. A
// system without thread names, or one that refuses, leaves the thread as it
// is: the result is deliberately not reported.
void nameCurrentThread(const std::string& name) noexcept;

// The longest start of name (UTF-8) that fits into maxBytes without cutting
// a character; the text before an embedded NUL at the most.
inline std::string cutAtCharacterBoundary(const std::string& name, std::size_t maxBytes) {
    std::size_t end = name.find('\0');
    if (end == std::string::npos) {
        end = name.size();
    }
    if (end > maxBytes) {
        end = maxBytes;
        // Step back over continuation bytes (10xxxxxx) to the start of the
        // character that does not fit.
        while (end > 0 && (static_cast<unsigned char>(name[end]) & 0xC0U) == 0x80U) {
            --end;
        }
    }
    return name.substr(0, end);
}

}  // namespace platform
}  // namespace kestrel
