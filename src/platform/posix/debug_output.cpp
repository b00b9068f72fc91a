#include <boost/locale/encoding_utf.hpp>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "platform/debug_output.h"

namespace kestrel {
namespace platform {

bool IsDebuggerPresent() {
    // Linux names the tracing process in /proc/self/status; 0 means none.
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("TracerPid:", 0) == 0) {
            return std::strtol(line.c_str() + 10, nullptr, 10) != 0;
        }
    }
    return false;
}

void OutputDebugStringW(const wchar_t* text) {
    if (text == nullptr || !IsDebuggerPresent()) {
        return;
    }
    const std::string narrow = boost::locale::conv::utf_to_utf<char>(text);
    std::fwrite(narrow.data(), 1, narrow.size(), stderr);
    std::fflush(stderr);
}

}  // namespace platform
}  // namespace kestrel
