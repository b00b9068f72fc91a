// Timing helpers for tests that must hold on a loaded two-core machine.
#pragma once

#include <chrono>
#include <thread>

namespace kestrel_test {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
#define KESTREL_TEST_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer) || __has_feature(address_sanitizer)
#define KESTREL_TEST_SANITIZED 1
#endif
#endif

// How late a thread may be scheduled before a timing assertion counts as a
// failure. Generous on purpose: the machine may be busy with other work.
#if defined(KESTREL_TEST_SANITIZED)
constexpr double kSchedulingAllowance = 1.5;
#else
constexpr double kSchedulingAllowance = 0.5;
#endif

// Polls pred until it holds or timeout seconds have passed; returns its
// last value. Use it instead of sleeping for a fixed time.
template <typename Pred>
bool waitFor(Pred pred, double timeout = 5.0) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeout);
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return pred();
        }
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

}  // namespace kestrel_test
