#include "core/contract.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace kestrel {
namespace detail {

void contractBroken(const char* message) noexcept {
    static std::atomic<bool> reported{false};
    if (reported.exchange(true)) {
        // Another thread is reporting and will end the process.
        for (;;) {
            std::this_thread::sleep_for(std::chrono::seconds(1));
        }
    }
    // One write, so that the line is not torn by other output.
    char line[512];
    std::snprintf(line, sizeof line, "kestrel: %s\n", message);
    std::fwrite(line, 1, std::strlen(line), stderr);
    std::fflush(stderr);
    std::abort();
}

}  // namespace detail
}  // namespace kestrel
