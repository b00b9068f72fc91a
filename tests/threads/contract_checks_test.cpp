// The rules a caller can break, checked in debug builds: each broken rule
// ends the process with a message that names it. Each death test runs its
// statement in a fresh child process.
#include <gtest/gtest.h>

#include "core/contract.h"
#include "kestrel/threads.h"

using namespace kestrel;

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KESTREL_TEST_TSAN 1
#endif
#endif
#if defined(__SANITIZE_THREAD__)
#define KESTREL_TEST_TSAN 1
#endif

#if KESTREL_CONTRACT_CHECKS && GTEST_HAS_DEATH_TEST && !defined(KESTREL_TEST_TSAN)

namespace {

// The children start threads: they re-run the test program from the start
// rather than fork a process that has threads.
class ContractChecksTest : public testing::Test {
  protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

// Deleted after the time given: between or inside the calls of running(),
// which returns at once.
struct Spinner : WorkThread {
    void running() override {}
};

// Its own hook breaks a rule; its destructor keeps them.
struct SelfStopper : WorkThread {
    ~SelfStopper() override { stop(); }
    void running() override {
        stop();
        wait(Thread::INFINITE_SECONDS);
    }
};

}  // namespace

// A subclass that does not stop in its destructor gets the message, not a
// crash in a hook that is gone; a stop that would join the thread from
// itself is named too.
TEST_F(ContractChecksTest, BrokenRulesEndTheProcessWithAMessageThatNamesThem) {
    for (int round = 0; round < 3; ++round) {
        EXPECT_DEATH(
            {
                auto* thread = new Spinner;
                thread->start();
                Thread::sleep(0.001 * round);
                delete thread;
            },
            "kestrel: WorkThread destroyed while its thread is running: call stop.. in the "
            "destructor of your subclass .see kestrel/threads.h, WorkThread.");
    }
    EXPECT_DEATH(
        {
            SelfStopper thread;
            thread.start();
            Thread::sleep(1.0);
        },
        "kestrel: WorkThread::stop.. called on the work thread itself");
}

#else

TEST(ContractChecksTest, NotBuilt) {
    GTEST_SKIP() << "contract checks are compiled out of this build (or death tests cannot run "
                    "under its thread sanitizer)";
}

#endif
