// Proves that an object is usable from another thread after a fault: a lock
// left held would block that thread for good.
#pragma once

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <thread>

#include "support/timing.h"

namespace kestrel_test {

// How long a short operation on another thread may take before it counts as
// blocked.
constexpr double kBlockedAfter = 10 * kSchedulingAllowance;

// Runs action on a new thread and waits for it within kBlockedAfter. A thread
// that does not finish is stuck: the test program stops at once, since the
// objects it is stuck on are about to be destroyed under it.
inline void runOnAnotherThread(const std::function<void()>& action) {
    std::atomic<bool> done{false};
    std::thread other([&] {
        action();
        done = true;
    });
    if (!waitFor([&] { return done.load(); }, kBlockedAfter)) {
        std::fprintf(stderr, "blocked: a lock was left held\n");
        std::abort();
    }
    other.join();
}

}  // namespace kestrel_test
