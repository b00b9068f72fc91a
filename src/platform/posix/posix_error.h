// How the POSIX implementations record their failures (internal to posix/).
#pragma once

#include <string>

#include "platform/system_error.h"

namespace kestrel {
namespace platform {
namespace posix {

// An application-defined code (bit 29, as Windows reserves it for
// applications): the dynamic loader failed, and its text says why.
constexpr ErrorCode kDynamicLoaderError = 0x20000001;

// Makes an errno value the calling thread's last error.
void setLastErrno(int code);

// Copies the dynamic loader's text (from dlerror(), which the next loader
// call overwrites) and makes kDynamicLoaderError the last error.
void setLastLoaderError(const char* text);

// The one place where an error code becomes text: the loader's copied text
// for kDynamicLoaderError, strerror_r otherwise.
std::string errorText(ErrorCode code);

}  // namespace posix
}  // namespace platform
}  // namespace kestrel
