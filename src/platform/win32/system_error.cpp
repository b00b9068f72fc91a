// Windows: the calls themselves. wchar_t is the system's UTF-16 unit.
#include <windows.h>

#include "platform/system_error.h"

namespace kestrel {
namespace platform {

ErrorCode GetLastError() {
    return ::GetLastError();
}

void SetLastError(ErrorCode code) {
    ::SetLastError(code);
}

std::uint32_t FormatMessageW(std::uint32_t flags, const void* source, ErrorCode messageId,
                             std::uint32_t languageId, wchar_t* buffer, std::uint32_t size,
                             void* arguments) {
    return ::FormatMessageW(flags, source, messageId, languageId, buffer, size,
                            static_cast<va_list*>(arguments));
}

void* LocalFree(void* memory) {
    return ::LocalFree(memory);
}

}  // namespace platform
}  // namespace kestrel
