#include <boost/locale/encoding_utf.hpp>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <cwchar>

#include "platform/posix/posix_error.h"

namespace kestrel {
namespace platform {

namespace {

// The dynamic loader's text behind kDynamicLoaderError, per thread like
// errno itself.
thread_local std::string lastLoaderText;

// strerror_r comes in two flavours; each overload takes one.
[[maybe_unused]] const char* pickText(int result, const char* buffer) {
    return result == 0 ? buffer : nullptr;
}
[[maybe_unused]] const char* pickText(const char* result, const char*) {
    return result;
}

}  // namespace

namespace posix {

void setLastErrno(int code) {
    errno = code;
}

void setLastLoaderError(const char* text) {
    lastLoaderText = text != nullptr ? text : "unknown dynamic loader error";
    errno = static_cast<int>(kDynamicLoaderError);
}

std::string errorText(ErrorCode code) {
    if (code == kDynamicLoaderError) {
        return lastLoaderText;
    }
    char buffer[256] = {};
    const char* text = pickText(strerror_r(static_cast<int>(code), buffer, sizeof buffer), buffer);
    return text != nullptr ? std::string(text) : "Unknown error " + std::to_string(code);
}

}  // namespace posix

ErrorCode GetLastError() {
    return static_cast<ErrorCode>(errno);
}

void SetLastError(ErrorCode code) {
    errno = static_cast<int>(code);
}

std::uint32_t FormatMessageW(std::uint32_t flags, const void* /*source*/, ErrorCode messageId,
                             std::uint32_t /*languageId*/, wchar_t* buffer, std::uint32_t size,
                             void* /*arguments*/) {
    if ((flags & kFormatMessageFromSystem) == 0 || buffer == nullptr) {
        posix::setLastErrno(EINVAL);
        return 0;
    }
    const std::wstring text = boost::locale::conv::utf_to_utf<wchar_t>(posix::errorText(messageId));
    const std::size_t length = text.size();
    wchar_t* target = buffer;
    if ((flags & kFormatMessageAllocateBuffer) != 0) {
        target = static_cast<wchar_t*>(std::malloc((length + 1) * sizeof(wchar_t)));
        if (target == nullptr) {
            posix::setLastErrno(ENOMEM);
            return 0;
        }
        *reinterpret_cast<wchar_t**>(buffer) = target;
    } else if (length + 1 > size) {
        posix::setLastErrno(ERANGE);
        return 0;
    }
    std::wmemcpy(target, text.c_str(), length + 1);
    return static_cast<std::uint32_t>(length);
}

void* LocalFree(void* memory) {
    std::free(memory);
    return nullptr;
}

}  // namespace platform
}  // namespace kestrel
