// Errors of operating-system calls, in the shape of the Windows calls: the
// calling thread's last error code, and the system's text for a code.
#pragma once

#include <cstdint>

namespace kestrel {
namespace platform {

using ErrorCode = std::uint32_t;

// FormatMessageW flags and the "user default" language.
constexpr std::uint32_t kFormatMessageAllocateBuffer = 0x100;
constexpr std::uint32_t kFormatMessageIgnoreInserts = 0x200;
constexpr std::uint32_t kFormatMessageFromSystem = 0x1000;
constexpr std::uint32_t kLanguageUserDefault = 0x400;

// The calling thread's last error: what the latest failing system call (a
// call of this layer, or of the C runtime) left behind. Read it at once;
// later calls may change it. On POSIX this is errno.
ErrorCode GetLastError();
void SetLastError(ErrorCode code);

// Puts the system's text for messageId into buffer and returns its length
// in characters (0 on failure). kFormatMessageFromSystem is required. With
// kFormatMessageAllocateBuffer, buffer really is a wchar_t** that receives a
// new text to be released with LocalFree; otherwise buffer holds size
// characters. source, languageId and arguments are accepted for the shape of
// the call; POSIX texts come in the process's locale and have no inserts.
std::uint32_t FormatMessageW(std::uint32_t flags, const void* source, ErrorCode messageId,
                             std::uint32_t languageId, wchar_t* buffer, std::uint32_t size,
                             void* arguments);

// Releases a text from FormatMessageW; returns null.
void* LocalFree(void* memory);

}  // namespace platform
}  // namespace kestrel
