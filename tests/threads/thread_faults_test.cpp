// Hooks that throw: the failure stays on the work thread, which then stops,
// starts again and stops from another thread.
#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>

#include "kestrel/threads.h"
#include "support/other_thread.h"

namespace {

using kestrel::TimerThread;
using kestrel::WorkThread;
using kestrel_test::waitFor;

enum Hook { IN_STARTING, IN_RUNNING, IN_STOPPING, IN_EXECUTING };

// Counts the calls of each hook; the first call of the failing one throws.
struct Calls {
    void operator()(Hook h) {
        if (++count[h] == 1 && h == failing) {
            h == IN_RUNNING ? throw std::runtime_error("hook failed") : throw 42;
        }
    }
    const Hook failing;
    std::atomic<int> count[4] = {};
};

class FaultyWorker : public WorkThread {
  public:
    explicit FaultyWorker(Calls& calls) : _calls(calls) {}
    ~FaultyWorker() override { stop(); }

  private:
    void starting() override { _calls(IN_STARTING); }
    void running() override {
        _calls(IN_RUNNING);
        wait(0.001);
    }
    void stopping() override { _calls(IN_STOPPING); }
    Calls& _calls;
};

class FaultyTimer : public TimerThread {
  public:
    explicit FaultyTimer(Calls& calls) : TimerThread(FIXED_RATE, 0.01), _calls(calls) {}
    ~FaultyTimer() override { stop(); }
    using WorkThread::isRunning;

  private:
    void executing() override { _calls(IN_EXECUTING); }
    Calls& _calls;
};

template <typename T>
void checkFault(Hook hook) {
    SCOPED_TRACE(hook);
    Calls calls{hook};
    T thread(calls);
    ASSERT_TRUE(thread.start());
    const Hook busy = hook == IN_EXECUTING ? IN_EXECUTING : IN_RUNNING;
    ASSERT_TRUE(waitFor([&] { return calls.count[busy] > 0; }));
    if (hook == IN_RUNNING || hook == IN_EXECUTING) {
        // The loop has ended for good; the state stays RUNNING until stop().
        ASSERT_TRUE(waitFor([&] { return calls.count[IN_STOPPING] == 1 || hook == IN_EXECUTING; }));
        kestrel::Thread::sleep(0.05);
        EXPECT_EQ(calls.count[hook], 1);
        EXPECT_TRUE(thread.isRunning() && thread.start());
    }
    kestrel_test::runOnAnotherThread([&] {
        EXPECT_TRUE(thread.stop());
        EXPECT_FALSE(thread.isRunning());
        const int before = calls.count[busy];
        EXPECT_TRUE(thread.start());
        EXPECT_TRUE(waitFor([&] { return calls.count[busy] > before; }));
        EXPECT_TRUE(thread.stop());
    });
    EXPECT_EQ(calls.count[IN_STARTING], hook == IN_EXECUTING ? 0 : 2);
    EXPECT_EQ(calls.count[IN_STOPPING], hook == IN_EXECUTING ? 0 : 2);
}

TEST(ThreadFaultTest, ThrowingHooksLeaveTheThreadStoppableAndRestartable) {
    for (Hook hook : {IN_STARTING, IN_RUNNING, IN_STOPPING}) {
        checkFault<FaultyWorker>(hook);
    }
    checkFault<FaultyTimer>(IN_EXECUTING);
}

}  // namespace
