#include <gtest/gtest.h>

#include <thread>

#include "support/event_fakes.h"

using namespace kestrel;
using namespace kestrel_test;
using Keys = std::vector<int>;
using Counts = std::vector<std::size_t>;

TEST(EventQueueTest, CoalescingReplacesTheFirstMatchInItsPlaceWithoutNotifying) {
    Ledger l;
    {
        EventQueue q(new Handler(l), {});
        const KeyMatch match1(1);
        const SumMerge merge(l);
        q.postEvent(new TestEvent(l, 1, new Info(l, false, 10)), &match1, &merge);  // appended
        q.postEvent(new TestEvent(l, 2), nullptr, nullptr);
        q.postEvent(new TestEvent(l, 1), nullptr, nullptr);
        auto* merged = new Info(l, false, 5);
        q.postEvent(new TestEvent(l, 3, merged), &match1, &merge);
        EXPECT_EQ(merged->value, 15);
        q.postEvent(new TestEvent(l, 4, new Info(l, false)), &match1, &merge);  // no merge
        q.postEvent(new TestEvent(l, 5), &match1, &merge);                      // appended
        EXPECT_EQ(l.merges, 1);
        EXPECT_EQ(l.replaced, 2);
        EXPECT_EQ(l.counts, Counts{1});
        q.processEvents();
        EXPECT_EQ(l.trace, (Keys{3, 2, 4, 5}));
    }
    EXPECT_EQ(l.destroyed, 6);
    EXPECT_EQ(l.infosDestroyed, 3);
    EXPECT_EQ(l.handlersDestroyed, 1);
}

TEST(EventQueueTest, PassServesEventsQueuedAtItsStartNeverNestsAndReportsLeftovers) {
    Ledger l;
    EventQueue q(new Handler(l), {});
    q.processEvents();
    bool onProcessingThread = false;
    auto* first = new TestEvent(l, 1);
    first->onExecute = [&] {
        q.postEvent(new TestEvent(l, 10), nullptr, nullptr);
        q.processEvents();  // nested: returns at once
        q.postEvent(new TestEvent(l, 11), nullptr, nullptr);
        return onProcessingThread = q.isProcessingThread();
    };
    q.postEvent(first, nullptr, nullptr);
    q.postEvent(new TestEvent(l, 2), nullptr, nullptr);
    q.processEvents();
    EXPECT_EQ(l.trace, (Keys{1, 2}));
    EXPECT_TRUE(onProcessingThread);
    EXPECT_EQ(l.counts, (Counts{1, 2}));
    q.processEvents();
    q.postEvent(new TestEvent(l, 3), nullptr, nullptr);
    EXPECT_EQ(l.trace, (Keys{1, 2, 10, 11}));
    EXPECT_EQ(l.counts, (Counts{1, 2, 1}));
    std::thread([&] { onProcessingThread = q.isProcessingThread(); }).join();
    EXPECT_FALSE(onProcessingThread);
    EXPECT_FALSE(EventQueue(nullptr, [] { return false; }).isProcessingThread());
}

TEST(EventQueueTest, FlushExecutesOnlyWhenAskedAndFailuresLeakNothing) {
    Ledger l;
    {
        EventQueue q(new Handler(l), {});
        for (int key : {1, 2, 1, 3, 1, 4, 5}) {
            q.postEvent(new TestEvent(l, key), nullptr, nullptr);
        }
        auto* pointless = new TestEvent(l, 1);
        pointless->executable = false;
        q.postEvent(pointless, nullptr, nullptr);
        q.flushEvents(KeyMatch(1, true), true);
        q.flushEvents(KeyMatch(2, true), false);
        EXPECT_EQ(l.trace, (Keys{1, 1, 1}));
        EXPECT_EQ(l.flushed, 2);

        // A throwing match or merge destroys the event being posted and leaves
        // the queue as it was; a throwing flush destroys what it moved aside.
        const KeyMatch throwing(3, false, 1);
        const KeyMatch match7(7, true);  // marks 7 flushed, which its execution outranks
        const SumMerge throwingMerge(l, true);
        auto* failing = new TestEvent(l, 9);
        failing->onExecute = []() -> bool { throw 1; };
        q.postEvent(failing, nullptr, nullptr);
        q.postEvent(new TestEvent(l, 7, new Info(l, false)), nullptr, nullptr);
        EXPECT_THROW(q.postEvent(new TestEvent(l, 6), &throwing, nullptr), int);
        EXPECT_THROW(q.postEvent(new TestEvent(l, 8, new Info(l, false)), &match7, &throwingMerge),
                     int);
        EXPECT_EQ(l.refused, 2);
        EXPECT_THROW(q.flushEvents(KeyMatch(-1, true, 2), false), int);
        EXPECT_EQ(l.flushed, 3);
        q.processEvents();
        EXPECT_EQ(l.trace, (Keys{1, 1, 1, 4, 5, 9, 7}));
        q.postEvent(new TestEvent(l, 8), nullptr, nullptr);
    }
    EXPECT_EQ(l.refused + l.discarded, 3);  // the destructor drops the last one unexecuted
    EXPECT_EQ(l.destroyed, l.created);
    EXPECT_EQ(l.infosDestroyed, 2);
    EXPECT_EQ(l.handlersDestroyed, 1);
}
