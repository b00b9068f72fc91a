// Proves that an object is usable from another thread after a fault: a lock
// left held would block that thread for good.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <thread>

#include "kestrel/threads.h"
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

// After a fault in one of its hooks: thread (a WorkThread or TimerThread)
// starts; when loopEnds, its loop ends after the first call, yet it stays
// RUNNING until stop(). Another thread then stops it, starts it again (busy()
// grows) and stops it: no lock was left held.
template <typename T, typename Busy>
void expectUsableAfterFault(T& thread, bool loopEnds, Busy busy) {
    ASSERT_TRUE(thread.start());
    ASSERT_TRUE(waitFor([&] { return busy() > 0; }));
    if (loopEnds) {
        kestrel::Thread::sleep(0.05);
        EXPECT_EQ(busy(), 1);
        EXPECT_TRUE(thread.isRunning() && thread.start());
    }
    runOnAnotherThread([&] {
        EXPECT_TRUE(thread.stop() && !thread.isRunning());
        const int before = busy();
        EXPECT_TRUE(thread.start() && waitFor([&] { return busy() > before; }));
        EXPECT_TRUE(thread.stop());
    });
}

}  // namespace kestrel_test
