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

// running() returns at once, so the loop calls it again and again: the
// destruction meets the thread between calls or inside one.
struct Spinner : WorkThread {
    void running() override {}
};

struct Sleeper : WorkThread {
    Event never;
    void running() override { wait(never); }
};

struct Ticker : TimerThread {
    Ticker() : TimerThread(FIXED_RATE, 0.001) {}
    void executing() override {}
};

// Its own hooks break the rules; its destructor keeps them.
struct SelfStopper : WorkThread {
    ~SelfStopper() override { stop(); }
    void running() override {
        stop();
        wait(Thread::INFINITE_SECONDS);
    }
};

struct PeriodChanger : TimerThread {
    PeriodChanger() : TimerThread(FIXED_RATE, 0.001) {}
    ~PeriodChanger() override { stop(); }
    void executing() override { setPeriod(getPeriod() * 2); }
    void stopSelf() { stop(); }
};

struct SelfStoppingTimer : TimerThread {
    SelfStoppingTimer() : TimerThread(FIXED_RATE, 0.001) {}
    ~SelfStoppingTimer() override { stop(); }
    void executing() override { stop(); }
};

struct StopEvent : IEvent {
    explicit StopEvent(EventThread& thread) : _thread(thread) {}
    bool execute() override { return _thread.stop(); }
    EventThread& _thread;
};

const char* const kWorkThreadDestroyed =
    "kestrel: WorkThread destroyed while its thread is running: call stop.. in the destructor "
    "of your subclass .see kestrel/threads.h, WorkThread.";
const char* const kTimerThreadDestroyed =
    "kestrel: TimerThread destroyed while its thread is running: call stop.. in the destructor "
    "of your subclass .see kestrel/threads.h, TimerThread.";
const char* const kStopFromItself = "kestrel: WorkThread::stop.. called on the work thread itself";

}  // namespace

// A subclass that does not stop in its destructor gets the message, not a
// crash in a hook that is gone, whether its thread runs or waits.
TEST_F(ContractChecksTest, DestroyingARunningWorkThreadOrTimerThreadNamesTheMissingStop) {
    for (int round = 0; round < 3; ++round) {
        EXPECT_DEATH(
            {
                auto* spinner = new Spinner;
                spinner->start();
                Thread::sleep(0.001 * round);
                delete spinner;
            },
            kWorkThreadDestroyed);
    }
    EXPECT_DEATH(
        {
            auto* sleeper = new Sleeper;
            sleeper->start();
            delete sleeper;
        },
        kWorkThreadDestroyed);
    for (int round = 0; round < 3; ++round) {
        EXPECT_DEATH(
            {
                auto* ticker = new Ticker;
                ticker->start();
                Thread::sleep(0.002 * round);
                delete ticker;
            },
            kTimerThreadDestroyed);
    }
    // Stopped first: no message, in either order of the calls.
    auto* ticker = new Ticker;
    EXPECT_TRUE(ticker->start());
    EXPECT_TRUE(ticker->stop());
    delete ticker;
}

// Operations that would join the thread from itself.
TEST_F(ContractChecksTest, StopOrSetPeriodOnTheThreadItselfIsReported) {
    EXPECT_DEATH(
        {
            SelfStopper thread;
            thread.start();
            Thread::sleep(1.0);
        },
        kStopFromItself);
    EXPECT_DEATH(
        {
            SelfStoppingTimer timer;
            timer.start();
            Thread::sleep(1.0);
        },
        kStopFromItself);
    EXPECT_DEATH(
        {
            EventThread thread;
            thread.start();
            thread.postEvent(new StopEvent(thread), nullptr, nullptr);
            Thread::sleep(1.0);
        },
        kStopFromItself);
    EXPECT_DEATH(
        {
            PeriodChanger timer;
            timer.start();
            Thread::sleep(1.0);
        },
        "kestrel: TimerThread::setPeriod.. called on the timer thread .from executing..., "
        "where restarting would join the thread itself");
    // The owner may change the period of a running timer.
    PeriodChanger timer;
    EXPECT_TRUE(timer.start());
    timer.stopSelf();
}

TEST_F(ContractChecksTest, ThreadDestroyedUnjoinedOrJoiningItselfIsReported) {
    struct Quick : Thread {
        bool run() override { return true; }
    };
    EXPECT_DEATH(
        {
            auto* thread = new Quick;
            thread->start();
            delete thread;
        },
        "kestrel: Thread destroyed while its thread was started and not joined");
    struct SelfJoiner : Thread {
        bool run() override {
            join();
            return true;
        }
    };
    EXPECT_DEATH(
        {
            SelfJoiner thread;
            thread.start();
            Thread::sleep(1.0);
        },
        "kestrel: Thread::join.. called on the thread itself");
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
