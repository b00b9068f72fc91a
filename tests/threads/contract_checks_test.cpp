// The rules a caller can break, checked in debug builds: each broken rule
// ends the process with a message that names it. Each death test runs its
// statement in a fresh child process.
#include <gtest/gtest.h>

#include <thread>

#include "core/contract.h"
#include "kestrel/events.h"
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
// which returns at once, or while the thread waits.
struct Spinner : WorkThread {
    void running() override {}
};

struct Sleeper : WorkThread {
    void running() override { wait(Thread::INFINITE_SECONDS); }
};

struct Ticker : TimerThread {
    Ticker() : TimerThread(FIXED_RATE, 0.001) {}
    void executing() override {}
};

// Their own hooks break the rules; their destructors keep them.
struct SelfStopper : WorkThread {
    ~SelfStopper() override { stop(); }
    void running() override {
        stop();
        wait(Thread::INFINITE_SECONDS);
    }
};

struct SelfStoppingTimer : TimerThread {
    SelfStoppingTimer() : TimerThread(FIXED_RATE, 0.001) {}
    ~SelfStoppingTimer() override { stop(); }
    void executing() override { stop(); }
};

struct PeriodChanger : TimerThread {
    PeriodChanger() : TimerThread(FIXED_RATE, 0.001) {}
    ~PeriodChanger() override { stop(); }
    void executing() override { setPeriod(getPeriod() * 2); }
};

template <class T>
void startAndDelete(double seconds) {
    auto* thread = new T;
    thread->start();
    Thread::sleep(seconds);
    delete thread;
}

// How long the owner waits for its thread to break a rule. The process ends
// there, so a passing case never waits this long; a wait that ended first
// would let the owner's destructor come before the hook, and the case fail.
// Generous: the thread may get no processor for a while on a loaded machine.
constexpr double kDeathWithin = 10.0;

template <class T>
void startAndWait() {
    T thread;
    thread.start();
    Thread::sleep(kDeathWithin);
}

const char* const kWorkThreadDestroyed =
    "kestrel: WorkThread destroyed while its thread is running: call stop.. in the destructor "
    "of your subclass .see kestrel/threads.h, WorkThread.";
const char* const kStopFromItself = "kestrel: WorkThread::stop.. called on the work thread itself";

}  // namespace

// A subclass that does not stop in its destructor gets the message, not a
// crash in a hook that is gone.
TEST_F(ContractChecksTest, DestroyingARunningThreadNamesTheMissingStopOrJoin) {
    for (int round = 0; round < 3; ++round) {
        EXPECT_DEATH(startAndDelete<Spinner>(0.001 * round), kWorkThreadDestroyed);
        EXPECT_DEATH(startAndDelete<Ticker>(0.002 * round),
                     "kestrel: TimerThread destroyed while its thread is running: call stop.. in "
                     "the destructor of your subclass .see kestrel/threads.h, TimerThread.");
    }
    EXPECT_DEATH(startAndDelete<Sleeper>(0.0), kWorkThreadDestroyed);
    struct Quick : Thread {
        bool run() override { return true; }
    };
    EXPECT_DEATH(startAndDelete<Quick>(0.0),
                 "kestrel: Thread destroyed while its thread was started and not joined");
    // The owner may change the period of a running timer, and delete it stopped.
    Ticker ticker;
    ASSERT_TRUE(ticker.start());
    ticker.setPeriod(0.002);
    EXPECT_TRUE(ticker.stop());
}

// Operations that would join the thread from itself.
TEST_F(ContractChecksTest, StopSetPeriodOrJoinOnTheThreadItselfIsReported) {
    EXPECT_DEATH(startAndWait<SelfStopper>(), kStopFromItself);
    EXPECT_DEATH(startAndWait<SelfStoppingTimer>(), kStopFromItself);
    EXPECT_DEATH(
        {
            struct StopEvent : IEvent {
                explicit StopEvent(EventThread& t) : thread(t) {}
                bool execute() override { return thread.stop(); }
                EventThread& thread;
            };
            EventThread thread;
            thread.start();
            (new StopEvent(thread))->postEvent(thread);
            Thread::sleep(kDeathWithin);
        },
        kStopFromItself);
    EXPECT_DEATH(startAndWait<PeriodChanger>(),
                 "kestrel: TimerThread::setPeriod.. called on the timer thread .from "
                 "executing..., where restarting would join the thread itself");
    struct SelfJoiner : Thread {
        bool run() override {
            join();
            return true;
        }
    };
    EXPECT_DEATH(startAndWait<SelfJoiner>(), "kestrel: Thread::join.. called on the thread itself");
}

TEST_F(ContractChecksTest, EventManagerMadeOrDestroyedOffItsProcessingThreadIsReported) {
    EXPECT_DEATH(
        {
            EventManager::createInstance(nullptr);
            std::thread([] { EventManager::destroyInstance(); }).join();
        },
        "kestrel: EventManager::destroyInstance.. called on a thread other than its processing "
        "thread");
    EXPECT_DEATH(
        {
            EventManager::createInstance(nullptr);
            std::thread([] { EventManager::createInstance(nullptr); }).join();
        },
        "kestrel: EventManager::createInstance.. called on a thread other than the processing "
        "thread of the existing instance");
    // On its own thread, and from another one when there is no instance.
    std::thread([] {
        EventManager::destroyInstance();
        EventManager::createInstance(nullptr);
        EventManager::destroyInstance();
    }).join();
    EXPECT_EQ(EventManager::getInstance(), nullptr);
}

#else

TEST(ContractChecksTest, NotBuilt) {
    GTEST_SKIP() << "contract checks are compiled out of this build (or death tests cannot run "
                    "under its thread sanitizer)";
}

#endif
