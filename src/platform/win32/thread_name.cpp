// Windows: a thread's description (SetThreadDescription, UTF-16), which
// debuggers and profilers show. The call exists from Windows 10 1607 on, so it
// is looked up in kernel32 at run time; older systems keep threads unnamed.
#include <windows.h>

#include <climits>
#include <cstring>
#include <string>

#include "platform/thread_name.h"

namespace kestrel {
namespace platform {

namespace {

using SetThreadDescriptionFunction = HRESULT(WINAPI*)(HANDLE, PCWSTR);

SetThreadDescriptionFunction findSetThreadDescription() noexcept {
    const HMODULE kernel32 = ::GetModuleHandleW(L"kernel32.dll");
    if (kernel32 == nullptr) {
        return nullptr;
    }
    const FARPROC found = ::GetProcAddress(kernel32, "SetThreadDescription");
    SetThreadDescriptionFunction function = nullptr;
    static_assert(sizeof found == sizeof function, "code addresses differ in size");
    std::memcpy(&function, &found, sizeof function);
    return function;
}

}  // namespace

void nameCurrentThread(const std::string& name) noexcept {
    static const SetThreadDescriptionFunction setDescription = findSetThreadDescription();
    if (setDescription == nullptr) {
        return;
    }
    const DWORD savedError = ::GetLastError();
    try {
        const std::string text = cutAtCharacterBoundary(name, static_cast<std::size_t>(INT_MAX));
        const int units = ::MultiByteToWideChar(CP_UTF8, 0, text.data(),
                                                static_cast<int>(text.size()), nullptr, 0);
        if (units > 0 || text.empty()) {
            std::wstring wide(static_cast<std::size_t>(units), L'\0');
            if (units > 0) {
                ::MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()),
                                      &wide[0], units);
            }
            setDescription(::GetCurrentThread(), wide.c_str());
        }
    } catch (...) {
        // No memory for the conversion: the thread keeps its name.
    }
    ::SetLastError(savedError);
}

}  // namespace platform
}  // namespace kestrel
