#include <gtest/gtest.h>

#include <thread>

#include "kestrel/events.h"
#include "support/counting_events.h"

using kestrel::EventQueue;
using kestrel_test::CountingInfo;
using kestrel_test::EventCounters;
using kestrel_test::MatchId;
using kestrel_test::RecordingEvent;
using kestrel_test::RecordingHandler;
using kestrel_test::SumMerge;
using Ids = std::vector<int>;
using Counts = std::vector<std::size_t>;

TEST(EventQueueTest, CoalescingReplacesFirstMatchInItsPlaceWithoutNotifying) {
    EventCounters c;
    Ids trace;
    Counts calls;
    std::atomic<int> handlers{0};
    {
        EventQueue q(new RecordingHandler(calls, handlers), {});
        const MatchId match1(1);
        const SumMerge merge;
        q.postEvent(new RecordingEvent(c, 1, &trace, new CountingInfo(c, false, 10)), &match1,
                    &merge);
        q.postEvent(new RecordingEvent(c, 2, &trace), nullptr, nullptr);
        q.postEvent(new RecordingEvent(c, 1, &trace), nullptr, nullptr);
        auto* merged = new CountingInfo(c, false, 5);
        q.postEvent(new RecordingEvent(c, 3, &trace, merged), &match1, &merge);
        EXPECT_EQ(merge.calls, 1);
        EXPECT_EQ(merged->value, 15);
        EXPECT_EQ(c.eventsDestroyed, 1);
        EXPECT_EQ(c.infosDestroyed, 1);
        // The queued event has no record: replaced without merging.
        q.postEvent(new RecordingEvent(c, 4, &trace, new CountingInfo(c, false)), &match1, &merge);
        EXPECT_EQ(merge.calls, 1);
        EXPECT_EQ(calls, Counts{1});
        q.processEvents();
        EXPECT_EQ(trace, (Ids{3, 2, 4}));
    }
    EXPECT_EQ(c.executed, 3);
    EXPECT_EQ(c.eventsDestroyed, 5);
    EXPECT_EQ(c.infosDestroyed, 3);
    EXPECT_EQ(handlers, 1);
}

TEST(EventQueueTest, PassServesEventsQueuedAtItsStartNeverNestsAndReportsLeftovers) {
    EventCounters c;
    Ids trace;
    Counts calls;
    std::atomic<int> handlers{0};
    EventQueue q(new RecordingHandler(calls, handlers), {});
    q.processEvents();
    EXPECT_TRUE(calls.empty());

    bool onProcessingThread = false;
    auto* first = new RecordingEvent(c, 1, &trace);
    first->onExecute = [&] {
        q.postEvent(new RecordingEvent(c, 10, &trace), nullptr, nullptr);
        q.processEvents();  // nested: returns at once
        q.postEvent(new RecordingEvent(c, 11, &trace), nullptr, nullptr);
        onProcessingThread = q.isProcessingThread();
    };
    q.postEvent(first, nullptr, nullptr);
    q.postEvent(new RecordingEvent(c, 2, &trace), nullptr, nullptr);
    q.processEvents();
    EXPECT_EQ(trace, (Ids{1, 2}));
    EXPECT_TRUE(onProcessingThread);
    EXPECT_EQ(calls, (Counts{1, 2}));
    q.processEvents();
    EXPECT_EQ(trace, (Ids{1, 2, 10, 11}));
    q.postEvent(new RecordingEvent(c, 3, &trace), nullptr, nullptr);
    EXPECT_EQ(calls, (Counts{1, 2, 1}));

    bool elsewhere = true;
    std::thread([&] { elsewhere = q.isProcessingThread(); }).join();
    EXPECT_FALSE(elsewhere);
    EXPECT_FALSE(EventQueue(nullptr, [] { return false; }).isProcessingThread());
}

TEST(EventQueueTest, FlushRemovesMatchesInOrderAndExecutesThemOnlyWhenAsked) {
    EventCounters c;
    Ids trace;
    EventQueue q(nullptr, {});
    for (int id : {1, 2, 1, 3, 1}) {
        q.postEvent(new RecordingEvent(c, id, &trace), nullptr, nullptr);
    }
    auto* pointless = new RecordingEvent(c, 1, &trace);
    pointless->executable = false;
    q.postEvent(pointless, nullptr, nullptr);
    q.flushEvents(MatchId(1), true);
    EXPECT_EQ(trace, (Ids{1, 1, 1}));
    EXPECT_EQ(c.eventsDestroyed, 4);
    q.flushEvents(MatchId(2), false);
    EXPECT_EQ(c.executed, 3);
    EXPECT_EQ(c.eventsDestroyed, 5);
    q.processEvents();
    EXPECT_EQ(trace, (Ids{1, 1, 1, 3}));
}

TEST(EventQueueTest, ThrowingEventsAreSkippedAndThrowingFunctionObjectsLeakNothing) {
    EventCounters c;
    Ids trace;
    Counts calls;
    std::atomic<int> handlers{0};
    {
        EventQueue q(new RecordingHandler(calls, handlers), {});
        auto* failing = new RecordingEvent(c, 1, &trace, new CountingInfo(c, false));
        failing->onExecute = [] { throw 1; };
        q.postEvent(failing, nullptr, nullptr);
        q.postEvent(new RecordingEvent(c, 2, &trace), nullptr, nullptr);

        // A throwing match or merge destroys the event being posted; the queue
        // is unchanged.
        const MatchId throwingMatch(1, 1);
        const MatchId match1(1);
        const SumMerge throwingMerge(true);
        EXPECT_THROW(q.postEvent(new RecordingEvent(c, 5), &throwingMatch, nullptr), int);
        EXPECT_THROW(q.postEvent(new RecordingEvent(c, 6, nullptr, new CountingInfo(c, false)),
                                 &match1, &throwingMerge),
                     int);
        EXPECT_EQ(c.eventsDestroyed, 2);
        EXPECT_EQ(c.infosDestroyed, 1);
        q.processEvents();
        EXPECT_EQ(trace, (Ids{1, 2}));

        // Events a flush moved aside before its match threw are destroyed unexecuted.
        for (int id : {3, 4, 5}) {
            q.postEvent(new RecordingEvent(c, id, &trace), nullptr, nullptr);
        }
        EXPECT_THROW(q.flushEvents(MatchId(3, 2), true), int);
        EXPECT_EQ(c.eventsDestroyed, 5);
        EXPECT_EQ(handlers, 0);
    }
    // Destroying the queue destroys what is left unexecuted, then the handler.
    EXPECT_EQ(trace, (Ids{1, 2}));
    EXPECT_EQ(c.eventsDestroyed, 7);
    EXPECT_EQ(c.infosDestroyed, 2);
    EXPECT_EQ(handlers, 1);
}
