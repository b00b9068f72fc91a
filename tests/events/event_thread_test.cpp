// The event thread: its queue, its wake-ups and its stop, with callers' code
// that throws, posts elsewhere or stops the thread, and its idleness.
#include <gtest/gtest.h>

#include <thread>

#include "core/contract.h"
#include "events/event_case.h"
#include "support/idle.h"
#include "threads/signal_hook.h"

using namespace kestrel;
using namespace kestrel_test;

TEST_F(EventCaseTest, AThreadRunsWhatWasQueuedBeforeItSawAStopThenRefusesPosts) {
    ASSERT_TRUE(other.start());  // discards what is queued when it sees the stop
    holdAndQueue(other);
    std::thread stopper([this] { other.stop(); });
    EXPECT_TRUE(waitFor([this] { return !other.isRunning(); }));
    event(9)->postEvent(other);  // refused: stopping
    release = true;
    stopper.join();
    finish({0, 2, 3, 98, 99});
}

TEST_F(EventCaseTest, MatchThrowsWhilePostingToTheThreadAndWhileFlushingIt) {
    holdAndQueue(thread);
    const KeyMatch match(3, kReplaced, throwOnCall(2));
    EXPECT_THROW(event(4)->postOrCoalesceEvent(thread, &match, nullptr), int);
    EXPECT_THROW(IEvent::flushEvents(thread, KeyMatch(-1, kFlushed, throwOnCall(2))), int);
    finish({0, 3, 98, 99});
}

// A post wakes its thread once it has left the thread's locks: a post made
// inside another post must still wake its own thread.
TEST_F(EventCaseTest, MatchPostsToAnotherThreadWhilePosting) {
    holdAndQueue(thread);
    ASSERT_TRUE(other.start());
    const KeyMatch match(7, kReplaced, [this] { event(5)->postEvent(other); });
    event(4)->postOrCoalesceEvent(thread, &match, nullptr);  // one 5 per queued event
    EXPECT_TRUE(waitFor([this] { return l.executed == 3; }));
    finish({0, 5, 5, 2, 3, 4, 98, 99});
}

// Coalescing into the thread's queue runs the replacement; an event that
// stops its own thread: the stop cannot join there, yet the thread ends after
// the pass and the owner's stop() completes it (debug builds report that call
// instead, see contract_checks_test.cpp).
TEST(EventThreadTest, CoalescesAndStopsFromItsOwnEvent) {
    Ledger t;
    {
        EventThread thread;
        ASSERT_TRUE(thread.start());
        std::atomic<bool> release{false};
        auto* hold = new TestEvent(t, 0);
        hold->onExecute = [&] { return waitFor([&] { return release.load(); }); };
        hold->postEvent(thread);
        ASSERT_TRUE(waitFor([&] { return t.executed == 1; }));
        const KeyMatch any(-1);
        (new TestEvent(t, 1))->postOrCoalesceEvent(thread, &any, nullptr);
        (new TestEvent(t, 2))->postOrCoalesceEvent(thread, &any, nullptr);  // replaces 1
        release = true;
        EXPECT_TRUE(waitFor([&] { return t.executed == 2; }));
        (new TestEvent(t, 3))->postOrCoalesceEvent(thread, &any, nullptr);  // into the empty queue
        EXPECT_TRUE(waitFor([&] { return t.executed == 3; }));
        EXPECT_EQ(t.trace(), (Ints{0, 2, 3}));
#if !KESTREL_CONTRACT_CHECKS
        auto* stopping = new TestEvent(t, 4);
        stopping->onExecute = [&] { return thread.stop(); };
        stopping->postEvent(thread);
        (new TestEvent(t, 5))->postEvent(thread);
        EXPECT_TRUE(waitFor([&] { return !thread.isRunning(); }));
        runOnAnotherThread([&] { EXPECT_TRUE(thread.stop() && thread.start()); });
#endif
    }
    EXPECT_TRUE(t.destroyed() == t.created && t.fates[kWrong] == 0);
}

namespace {

// Holds the poster thread at the end of its wake event's signal() until the
// test lets it go.
std::atomic<std::thread::id> heldSignaller;
std::atomic<int> signalPhase{0};  // 1: the poster is held; 2: released

void holdPosterInSignal() {
    if (std::this_thread::get_id() == heldSignaller.load()) {
        signalPhase = 1;
        waitFor([] { return signalPhase == 2; });
    }
}

}  // namespace

// An owner that has seen its last event executed stops the thread and
// destroys it at once, while the poster may still be waking the thread.
TEST(EventThreadStopTest, StopWaitsForAPosterStillInsideTheWakeUp) {
    Ledger l;
    auto* thread = new EventThread;
    ASSERT_TRUE(thread->start());
    kestrel::detail::setSignalHookForTesting(holdPosterInSignal);
    std::thread poster([&] {
        heldSignaller = std::this_thread::get_id();
        (new TestEvent(l, 1))->postEvent(*thread);
        heldSignaller = std::thread::id();
    });
    ASSERT_TRUE(waitFor([&] { return signalPhase == 1 && l.executed == 1; }));
    std::atomic<bool> stopped{false};
    std::thread owner([&] {
        thread->stop();
        stopped = true;
    });
    EXPECT_FALSE(waitFor([&] { return stopped.load(); }, 0.2));
    signalPhase = 2;
    owner.join();
    delete thread;
    poster.join();
    kestrel::detail::setSignalHookForTesting(nullptr);
    EXPECT_TRUE(l.fates[kExecuted] == 1 && l.destroyed() == l.created);
}

TEST(EventThreadTest, IdleEventThreadsNeverWake) {
    EventThread threads[4];
    std::vector<long> tids;
    for (EventThread& thread : threads) {
        ASSERT_TRUE(thread.start());
        struct Tid : IEvent {
            explicit Tid(std::atomic<long>& t) : IEvent(nullptr), tid(t) {}
            bool execute() override {
                tid = currentTid();
                return true;
            }
            std::atomic<long>& tid;
        };
        std::atomic<long> tid{-1};
        (new Tid(tid))->postEvent(thread);
        ASSERT_TRUE(waitFor([&] { return tid != -1; }));
        tids.push_back(tid);
    }
    expectIdle(tids);
}
