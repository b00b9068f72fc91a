// The event thread: its queue, its wake-ups and its stop, with callers' code
// that throws, posts elsewhere or stops the thread, and its idleness.
#include <gtest/gtest.h>

#include <chrono>
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

#if !KESTREL_CONTRACT_CHECKS
// An event that stops its own thread: the stop cannot join there, yet the
// thread ends after the pass and the owner's stop() completes it (debug
// builds report that call instead, see contract_checks_test.cpp).
TEST(EventThreadTest, StopsFromItsOwnEvent) {
    Ledger t;
    {
        EventThread thread;
        ASSERT_TRUE(thread.start());
        auto* stopping = new TestEvent(t, 4);
        stopping->onExecute = [&] { return thread.stop(); };
        stopping->postEvent(thread);
        (new TestEvent(t, 5))->postEvent(thread);
        EXPECT_TRUE(waitFor([&] { return !thread.isRunning(); }));
        runOnAnotherThread([&] { EXPECT_TRUE(thread.stop() && thread.start()); });
    }
    EXPECT_TRUE(t.destroyed() == t.created && t.fates[kWrong] == 0);
}
#endif

namespace {

// Holds the poster thread at the end of its wake event's signal() until the
// test lets it go.
std::atomic<std::thread::id> heldSignaller;
std::atomic<int> signalPhase{0};  // 1: the poster is held; 2: released

void holdPosterInSignal(kestrel::detail::SignalPoint point, std::size_t /*wakes*/) {
    if (point == kestrel::detail::SignalPoint::kEnd &&
        std::this_thread::get_id() == heldSignaller.load()) {
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

// Each post lands from 0 to 4 us after the event before it was served: in
// the pass that served it, in the moment before the thread sleeps, or in its
// sleep. No wake-up may be lost in any of them.
TEST(EventThreadTest, APostRightAfterAPassIsServed) {
    Ledger l;
    EventThread thread;
    ASSERT_TRUE(thread.start());
    const std::atomic<int>& served = l.executed;
    for (int post = 1; post <= 10000; ++post) {
        (new TestEvent(l, post))->postEvent(thread);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        // Spins at first, to post as soon as it sees the event served; yields
        // later, in case the event thread waits for this CPU.
        for (int spins = 0; served < post && std::chrono::steady_clock::now() < deadline; ++spins) {
            if (spins > 1000)
                std::this_thread::yield();
        }
        ASSERT_EQ(served, post);
        const auto after =
            std::chrono::steady_clock::now() + std::chrono::nanoseconds(250 * (post % 16));
        while (std::chrono::steady_clock::now() < after) {
        }
    }
}

TEST(EventThreadTest, IdleEventThreadsNeverWake) {
    Ledger l;
    EventThread threads[4];
    std::vector<long> tids;
    for (EventThread& thread : threads) {
        ASSERT_TRUE(thread.start());
        std::atomic<long> tid{-1};
        auto* e = new TestEvent(l, 0);
        e->onExecute = [&tid] {
            tid = currentTid();
            return true;
        };
        e->postEvent(thread);
        ASSERT_TRUE(waitFor([&] { return tid != -1; }));
        tids.push_back(tid);
    }
    expectIdle(tids);
}

// A stopped thread refuses posts; the counts add up over its runs and may be
// read from under the queue's lock, by a match object.
TEST(EventThreadTest, CountsItsRunsAndItsRefusals) {
    Ledger l;
    EventThread thread;
    const KeyMatch match1(1);
    thread.postEvent(new TestEvent(l, 1), nullptr, nullptr);  // not running: refused
    EXPECT_EQ(counts(thread.getCounters()), (Counts{1, 0, 0, 0, 1}));
    for (int run = 0; run < 2; ++run) {
        ASSERT_TRUE(thread.start());
        std::atomic<bool> release{false};  // holds the others in the queue
        auto* gate = new TestEvent(l, 0);
        gate->onExecute = [&] { return waitFor([&] { return release.load(); }); };
        thread.postEvent(gate, nullptr, nullptr);
        thread.postEvent(new TestEvent(l, 1), &match1, nullptr);
        thread.postEvent(new TestEvent(l, 1), &match1, nullptr);  // coalesces
        thread.postEvent(new TestEvent(l, 2), nullptr, nullptr);
        thread.flushEvents(KeyMatch(2, kFlushed));
        thread.flushEvents(Match([&](TestEvent&) {
            const EventThread::Counters c = thread.getCounters();
            return c.posted < c.executed + c.coalesced + c.discarded;
        }));
        release = true;
        thread.stop();
    }
    const EventThread::Counters c = thread.getCounters();
    EXPECT_TRUE(c.posted == 9 && c.flushed == 2);
    EXPECT_EQ(c.posted, c.executed + c.coalesced + c.discarded);
    EXPECT_EQ(static_cast<int>(c.executed), l.fates[kExecuted].load());
    EXPECT_EQ(static_cast<int>(c.coalesced), l.fates[kReplaced].load());
    EXPECT_EQ(l.destroyed(), 9);
}
