#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>

#include "kestrel/events.h"
#include "support/counting_events.h"
#include "support/timing.h"

using kestrel::EventThread;
using kestrel_test::EventCounters;
using kestrel_test::MatchId;
using kestrel_test::RecordingEvent;
using kestrel_test::waitFor;
using Ids = std::vector<int>;

TEST(EventThreadTest, RunsPostedEventsInOrderOnItsThreadOnlyWhileRunning) {
    EventCounters c;
    Ids trace;  // read once the thread is stopped
    EventThread thread;
    (new RecordingEvent(c, 0, &trace))->postEvent(thread);
    EXPECT_EQ(c.eventsDestroyed, 1);

    ASSERT_TRUE(thread.start());
    EXPECT_TRUE(thread.isRunning());
    std::atomic<bool> release{false};
    std::atomic<bool> elsewhere{false};
    const auto caller = std::this_thread::get_id();
    auto* blocker = new RecordingEvent(c, 1, &trace);
    blocker->onExecute = [&] {
        elsewhere = std::this_thread::get_id() != caller;
        waitFor([&] { return release.load(); });
    };
    blocker->postEvent(thread);
    ASSERT_TRUE(waitFor([&] { return c.executed == 1; }));
    // Queued behind the executing event: 2, 3 (replaced by 5), 2, 4; then the
    // 2s are flushed unexecuted.
    for (int id : {2, 3, 2, 4}) {
        (new RecordingEvent(c, id, &trace))->postEvent(thread);
    }
    const MatchId match3(3);
    (new RecordingEvent(c, 5, &trace))->postOrCoalesceEvent(thread, &match3, nullptr);
    kestrel::IEvent::flushEvents(thread, MatchId(2));
    EXPECT_EQ(c.eventsDestroyed, 4);
    release = true;
    ASSERT_TRUE(waitFor([&] { return c.executed == 3; }));
    EXPECT_TRUE(thread.stop());
    EXPECT_FALSE(thread.isRunning());
    EXPECT_TRUE(elsewhere);
    EXPECT_EQ(trace, (Ids{1, 5, 4}));

    (new RecordingEvent(c, 6, &trace))->postEvent(thread);
    kestrel::IEvent::flushEvents(thread, MatchId(-1));
    ASSERT_TRUE(thread.start());
    (new RecordingEvent(c, 7, &trace))->postEvent(thread);
    ASSERT_TRUE(waitFor([&] { return c.executed == 4; }));
    thread.stop();
    EXPECT_EQ(trace, (Ids{1, 5, 4, 7}));
    EXPECT_EQ(c.eventsDestroyed, 9);
}

TEST(EventThreadTest, StopDrainsTheSignalledQueueAndRefusesNewEvents) {
    for (auto mode : {EventThread::DISCARD_PENDING_EVENTS, EventThread::PROCESS_PENDING_EVENTS}) {
        EventCounters c;
        Ids trace;
        std::atomic<bool> release{false};
        auto* thread = new EventThread(mode);
        thread->start();
        auto* blocker = new RecordingEvent(c, 1, &trace);
        blocker->onExecute = [&] {
            waitFor([&] { return release.load(); });
            (new RecordingEvent(c, 9, &trace))->postEvent(*thread);  // refused: stopping
        };
        blocker->postEvent(*thread);
        ASSERT_TRUE(waitFor([&] { return c.executed == 1; }));
        for (int id : {2, 3}) {
            (new RecordingEvent(c, id, &trace))->postEvent(*thread);
        }
        std::thread stopper([thread] { thread->stop(); });
        ASSERT_TRUE(waitFor([&] { return !thread->isRunning(); }));
        release = true;
        stopper.join();
        EXPECT_EQ(trace, (Ids{1, 2, 3})) << "mode " << mode;
        EXPECT_EQ(c.eventsDestroyed, 4);

        // Destroying a running thread stops it. The event may still be queued
        // when the wait loop sees the stop: only the final pass guarantees it.
        thread->start();
        (new RecordingEvent(c, 4, &trace))->postEvent(*thread);
        delete thread;
        if (mode == EventThread::PROCESS_PENDING_EVENTS) {
            EXPECT_EQ(trace, (Ids{1, 2, 3, 4}));
        }
        EXPECT_EQ(c.eventsDestroyed, 5);
    }
}
