#include <windows.h>

#include "platform/debug_output.h"

namespace kestrel {
namespace platform {

bool IsDebuggerPresent() {
    return ::IsDebuggerPresent() != FALSE;
}

void OutputDebugStringW(const wchar_t* text) {
    if (text != nullptr) {
        ::OutputDebugStringW(text);
    }
}

}  // namespace platform
}  // namespace kestrel
