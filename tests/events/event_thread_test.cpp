#include <gtest/gtest.h>

#include <thread>

#include "support/event_fakes.h"
#include "support/timing.h"

using namespace kestrel;
using namespace kestrel_test;
using Keys = std::vector<int>;

namespace {

// Posts an event that holds the thread until release is set, then calls
// after; returns once it executes.
void postBlocker(Ledger& l, EventThread& thread, std::atomic<bool>& release,
                 std::function<void()> after = {}) {
    auto* event = new TestEvent(l, 1);
    event->onExecute = [&release, after] {
        waitFor([&] { return release.load(); });
        if (after) {
            after();
        }
        return true;
    };
    event->postEvent(thread);
    ASSERT_TRUE(waitFor([&] { return event->executions == 1; }));
}

}  // namespace

TEST(EventThreadTest, RunsPostedEventsInOrderOnlyWhileRunning) {
    Ledger l;
    std::atomic<bool> release{false};
    EventThread thread;
    (new TestEvent(l, 0))->postEvent(thread);
    ASSERT_TRUE(thread.start());
    postBlocker(l, thread, release);
    for (int key : {2, 3, 2, 4}) {
        (new TestEvent(l, key))->postEvent(thread);
    }
    const KeyMatch match3(3);
    (new TestEvent(l, 5))->postOrCoalesceEvent(thread, &match3, nullptr);
    IEvent::flushEvents(thread, KeyMatch(2, true));  // while 1 executes
    release = true;
    ASSERT_TRUE(waitFor([&] { return l.executed == 3; }));
    EXPECT_TRUE(thread.stop());
    EXPECT_FALSE(thread.isRunning());
    (new TestEvent(l, 6))->postEvent(thread);
    ASSERT_TRUE(thread.start());  // with a fresh, empty queue
    (new TestEvent(l, 7))->postEvent(thread);
    ASSERT_TRUE(waitFor([&] { return l.executed == 4; }));
    thread.stop();
    EXPECT_EQ(l.trace, (Keys{1, 5, 4, 7}));
    EXPECT_EQ(l.refused, 2);
    EXPECT_EQ(l.flushed, 2);
}

TEST(EventThreadTest, StopDrainsTheSignalledQueueAndThenTheStopModeDecides) {
    for (auto mode : {EventThread::DISCARD_PENDING_EVENTS, EventThread::PROCESS_PENDING_EVENTS}) {
        Ledger l;
        std::atomic<bool> release{false};
        auto* thread = new EventThread(mode);
        thread->start();
        postBlocker(l, *thread, release, [&] {
            (new TestEvent(l, 9))->postEvent(*thread);  // refused: stopping
        });
        for (int key : {2, 3}) {
            (new TestEvent(l, key))->postEvent(*thread);
        }
        std::thread stopper([thread] { thread->stop(); });
        ASSERT_TRUE(waitFor([&] { return !thread->isRunning(); }));
        release = true;
        stopper.join();
        EXPECT_EQ(l.trace, (Keys{1, 2, 3})) << mode;

        // The event may still be queued when the wait loop sees the stop: only
        // the final pass guarantees that it runs.
        thread->start();
        (new TestEvent(l, 4))->postEvent(*thread);
        delete thread;
        if (mode == EventThread::PROCESS_PENDING_EVENTS) {
            EXPECT_EQ(l.executed, 4);
        }
        EXPECT_EQ(l.destroyed, 5);
    }
}
