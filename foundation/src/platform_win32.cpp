// Windows side of the foundation services: locating the library through the
// module that holds its code, paths in the system's own UTF-16 (wchar_t has
// the same units as a ustring), and exclusive creation of temporary files.
#include <windows.h>

#include <cstdint>
#include <random>
#include <stdexcept>
#include <string>

#include "internal.h"

namespace fl {
namespace platform {

namespace {

// Any object of this library will do: the system maps its address back to
// the module, and so to the file the library was loaded from.
const char kAnchor = 0;

// Tries before a caller is told that no new name could be found.
constexpr int kNameAttempts = 100;

std::wstring wide(const ustring& text) {
    return std::wstring(text.begin(), text.end());
}

// A random part for a temporary name: eight hexadecimal digits.
std::wstring randomPart() {
    thread_local std::mt19937 generator = [] {
        std::random_device device;
        std::seed_seq seed{device(), static_cast<unsigned int>(::GetCurrentProcessId()),
                           static_cast<unsigned int>(::GetCurrentThreadId()),
                           static_cast<unsigned int>(::GetTickCount64())};
        return std::mt19937(seed);
    }();
    static const wchar_t digits[] = L"0123456789abcdef";
    std::uint32_t value = generator();
    std::wstring part(8, L'0');
    for (wchar_t& digit : part) {
        digit = digits[value & 0xF];
        value >>= 4;
    }
    return part;
}

}  // namespace

std::filesystem::path library_file() {
    HMODULE module = nullptr;
    if (!::GetModuleHandleExW(
            GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
            reinterpret_cast<LPCWSTR>(&kAnchor), &module)) {
        throw std::runtime_error("fl::filesystem: cannot locate the foundation library");
    }
    // The name may be longer than MAX_PATH; grow until it fits.
    std::wstring name(MAX_PATH, L'\0');
    for (;;) {
        const DWORD length =
            ::GetModuleFileNameW(module, &name[0], static_cast<DWORD>(name.size()));
        if (length == 0) {
            throw std::runtime_error("fl::filesystem: cannot locate the foundation library");
        }
        if (length < name.size()) {
            name.resize(length);
            break;
        }
        name.resize(name.size() * 2);
    }
    return std::filesystem::path(name).lexically_normal();
}

std::filesystem::path native_path(const ustring& path) {
    return std::filesystem::path(wide(path));
}

ustring from_native(const std::filesystem::path& path) {
    const std::wstring& text = path.native();
    return ustring(text.begin(), text.end());
}

std::filesystem::path create_unique_file(const std::filesystem::path& directory,
                                         const ustring& prefix, const ustring& suffix,
                                         std::error_code& ec) {
    std::wstring head = directory.native();
    if (!head.empty() && head.back() != L'\\' && head.back() != L'/') {
        head += L'\\';
    }
    head += wide(prefix);
    for (int attempt = 0; attempt < kNameAttempts; ++attempt) {
        const std::wstring name = head + randomPart() + wide(suffix);
        // CREATE_NEW fails when the name exists: no two callers, in any
        // process, are handed the same file.
        HANDLE file = ::CreateFileW(name.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                    FILE_ATTRIBUTE_NORMAL, nullptr);
        if (file != INVALID_HANDLE_VALUE) {
            ::CloseHandle(file);
            ec.clear();
            return std::filesystem::path(name);
        }
        const DWORD error = ::GetLastError();
        if (error != ERROR_FILE_EXISTS && error != ERROR_ALREADY_EXISTS) {
            ec.assign(static_cast<int>(error), std::system_category());
            return {};
        }
    }
    ec.assign(ERROR_FILE_EXISTS, std::system_category());
    return {};
}

}  // namespace platform
}  // namespace fl
