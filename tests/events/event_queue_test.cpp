// The event queue on its own: coalescing, flushing and passes, with match and
// merge objects, destructors, handlers and events that re-enter the queue.
#include <gtest/gtest.h>

#include <numeric>
#include <stdexcept>

#include "support/event_fakes.h"

using namespace kestrel;
using namespace kestrel_test;

// Every event handed over counts as posted, then under exactly one fate.
TEST(EventQueueTest, CoalescesFlushesPassesAndCountsEachEventOnceUnderItsFate) {
    Ledger l;
    {
        EventQueue q(new Handler(l), {});
        const KeyMatch match1(1);
        const SumMerge merge;
        const auto post = [&](TestEvent* e, const IMatchEventFcn* match = nullptr) {
            q.postEvent(e, match, &merge);
            return e;
        };
        q.postEvent(nullptr, nullptr, nullptr);                   // not an event: not counted
        q.processEvents();                                        // empty: tells nothing
        post(new TestEvent(l, 1, new Info(false, 10)), &match1);  // appended
        post(new TestEvent(l, 2));
        post(new TestEvent(l, 6))->onExecute = []() -> bool { throw 6; };  // the pass goes on
        post(new TestEvent(l, 1));  // appended although it matches
        auto* merged = new Info(false, 5);
        post(new TestEvent(l, 3, merged), &match1);  // replaces the first 1
        EXPECT_EQ(merged->value, 15);
        auto* nesting = post(new TestEvent(l, 4, new Info(false)), &match1);  // no merge
        nesting->onExecute = [&] {
            post(new TestEvent(l, 10));
            q.processEvents();  // returns at once
            post(new TestEvent(l, 11));
            return true;
        };
        post(new TestEvent(l, 5), &match1);  // appended
        post(new TestEvent(l, 5))->executable = false;
        const Match throwing([](TestEvent&) -> bool { throw std::runtime_error("match"); });
        EXPECT_THROW(post(new TestEvent(l, 7), &throwing), std::runtime_error);  // refused
        q.flushEvents(KeyMatch(2, kFlushed), false);
        q.flushEvents(KeyMatch(5, kFlushed), true);  // runs the executable 5 only
        // Accepts 3, then throws: 3 is taken all the same, and not run.
        int asked = 0;
        const KeyMatch thenThrow(3, kFlushed, [&] {
            if (++asked == 2)
                throw std::runtime_error("flush");
        });
        EXPECT_THROW(q.flushEvents(thenThrow, true), std::runtime_error);
        q.processEvents();  // only the events queued when it began
        EXPECT_EQ(l.trace(), (Ints{5, 6, 4}));
        q.processEvents();
        post(new TestEvent(l, 12));  // left for the destructor
        EXPECT_EQ(l.trace(), (Ints{5, 6, 4, 10, 11}));
        EXPECT_EQ(l.told(), (Ints{1, 2, 1}));
        EXPECT_EQ(counts(q.getCounters()), (Counts{12, 5, 2, 4, 4}));  // 12 still queued
    }
    EXPECT_TRUE(l.fates[kReplaced] == 2 && l.fates[kFlushed] == 3 && l.fates[kRefused] == 2);
    EXPECT_TRUE(l.handlers == 1 && l.destroyed() == l.created && Info::alive == 0);
}

TEST(EventQueueReentryTest, MatchMergeAndDestructorsMayPostFlushAndProcessTheirOwnQueue) {
    Ledger l;
    {
        EventQueue q(new Handler(l), {});
        const auto post = [&](int key, const IMatchEventFcn* match = nullptr,
                              const IMergeEventInfoFcn* merge = nullptr) {
            q.postEvent(new TestEvent(l, key, new Info(false)), match, merge);
        };
        const KeyMatch key100(100, kFlushed);
        for (int key : {1, 2, 3})
            post(key);
        // Posts enough on its first call to move the list's storage, and is
        // asked only about the events queued when the walk began.
        int calls = 0;
        const Match grow([&](TestEvent& e) {
            if (calls++ == 0)
                for (int i = 0; i < 1000; ++i)
                    post(100);
            return e.key == 3;
        });
        post(4, &grow);  // 1 2 4
        EXPECT_EQ(calls, 3);
        q.flushEvents(key100, false);
        // Flushes the event it accepts: nothing is left to replace, so 5 is appended.
        const Match flushing([&](TestEvent& e) {
            const bool hit = e.key == 2;
            if (hit)
                q.flushEvents(KeyMatch(2, kFlushed), false);
            return hit;
        });
        post(5, &flushing);  // 1 4 5
        // The merge flushes the matched event: 6 is appended.
        const Merge flushMatched([&] { q.flushEvents(KeyMatch(5, kFlushed), false); });
        const Match takes5([](TestEvent& e) { return e.key == 5; });
        post(6, &takes5, &flushMatched);  // 1 4 6
        // A replaced event whose destructor posts to and flushes its queue.
        q.postEvent(new Hooked(l, 7,
                               [&] {
                                   post(8);
                                   q.flushEvents(KeyMatch(1, kFlushed), false);
                               }),
                    nullptr, nullptr);
        const Match takes7([](TestEvent& e) { return e.key == 7; });
        post(9, &takes7);  // 4 6 9 8
        // A pass run from inside the walk serves everything, the walk then
        // finds its event gone: 10 is appended to the empty queue.
        const Match processing([&](TestEvent&) {
            q.processEvents();
            return true;
        });
        post(10, &processing);
        EXPECT_EQ(l.trace(), (Ints{4, 6, 9, 8}));
        // A flush whose match coalesces into the same queue, and flushes an
        // event it has accepted: that one is no longer the outer flush's.
        post(11);
        post(12);
        const Match takes12([](TestEvent& e) { return e.key == 12; });
        const Match nested([&](TestEvent& e) {
            const int key = e.key;
            if (key == 10)
                post(13, &takes12);  // 10 11 13
            if (key == 13)
                q.flushEvents(KeyMatch(11, kFlushed), false);
            return key == 10 || key == 11;
        });
        q.flushEvents(nested, true);  // runs 10
        q.processEvents();
        EXPECT_EQ(l.trace(), (Ints{4, 6, 9, 8, 10, 13}));
        // A pass run from inside the walk, past its head, serves the event
        // the walk stands on and leaves two new ones in the queue: the walk
        // must not take them for the event it asked about.
        auto* posting = new TestEvent(l, 16);
        posting->onExecute = [&] {
            post(19);
            post(20);
            return true;
        };
        q.postEvent(posting, nullptr, nullptr);
        post(17);
        const Match processingAt17([&](TestEvent& e) {
            if (e.key != 17)
                return false;
            q.processEvents();
            return true;
        });
        post(18, &processingAt17);  // 19 20 18
        q.processEvents();
        // A flush whose match replaces the event it is asked about, by
        // coalescing into it, accepts an event that is gone: the new one in
        // its place stays queued.
        post(21);
        post(22);
        const Match takes21([](TestEvent& e) { return e.key == 21; });
        const Match replacing21([&](TestEvent& e) {
            if (e.key != 21)
                return false;
            post(23, &takes21);
            return true;
        });
        q.flushEvents(replacing21, false);  // 23 22
        q.processEvents();
        EXPECT_EQ(l.trace(), (Ints{4, 6, 9, 8, 10, 13, 16, 17, 19, 20, 18, 23, 22}));
        post(15);  // left for the destructor
    }
    EXPECT_TRUE(l.fates[kWrong] == 0 && l.destroyed() == l.created && Info::alive == 0);
}

// A queue of one event into which a post coalesces: the handler, told when
// that event arrived, is not told again; the end of a pass still tells it
// about one coalesced during the pass.
TEST(EventQueueNotificationTest, CoalescingIntoAQueueOfOneEventTellsTheHandlerExactlyAsNeeded) {
    Ledger l;
    {
        EventQueue q(new Handler(l), {});
        const KeyMatch any(-1);
        q.postEvent(new TestEvent(l, 1), &any, nullptr);
        q.postEvent(new TestEvent(l, 2), &any, nullptr);  // replaces 1
        EXPECT_EQ(l.told(), Ints{1});
        auto* third = new TestEvent(l, 3);
        third->onExecute = [&] {
            q.postEvent(new TestEvent(l, 4), nullptr, nullptr);
            q.postEvent(new TestEvent(l, 5), &any, nullptr);  // replaces 4
            return true;
        };
        q.postEvent(third, nullptr, nullptr);  // after 2
        q.processEvents();
        EXPECT_EQ(l.told(), (Ints{1, 1}));  // one event left after the pass
        q.processEvents();
        EXPECT_EQ(l.trace(), (Ints{2, 3, 5}));
        q.postEvent(new TestEvent(l, 6), &any, nullptr);  // empty again: told
        EXPECT_EQ(l.told(), (Ints{1, 1, 1}));
    }
    {
        // A handler that throws: the post's event stays queued, the pass ends.
        auto* handler = new Handler(l);
        handler->onNotify = [] { throw 1; };
        EventQueue q(handler, {});
        EXPECT_THROW(q.postEvent(new TestEvent(l, 7), nullptr, nullptr), int);
        auto* posting = new TestEvent(l, 8);
        posting->onExecute = [&] {
            q.postEvent(new TestEvent(l, 9), nullptr, nullptr);  // told at the pass's end
            return true;
        };
        q.postEvent(posting, nullptr, nullptr);
        EXPECT_THROW(q.processEvents(), int);
        q.processEvents();  // not taken for a pass still running
        EXPECT_EQ(l.trace(), (Ints{2, 3, 5, 7, 8, 9}));
    }
    EXPECT_TRUE(l.destroyed() == l.created && l.fates[kWrong] == 0);
}

// During the pass the executed first event appends 40 more while the head
// moves on: the storage wraps and grows with its head inside.
TEST(EventQueueCountersTest, TheQueueKeepsItsOrderWhileItsStorageWrapsAndGrows) {
    Ledger l;
    EventQueue q(nullptr, {});
    auto* first = new TestEvent(l, 0);
    first->onExecute = [&] {
        for (int key = 100; key < 140; ++key)
            q.postEvent(new TestEvent(l, key), nullptr, nullptr);
        return true;
    };
    q.postEvent(first, nullptr, nullptr);
    for (int key = 1; key < 10; ++key)
        q.postEvent(new TestEvent(l, key), nullptr, nullptr);
    q.processEvents();
    const KeyMatch match120(120);
    q.postEvent(new TestEvent(l, 200), &match120, nullptr);  // takes 120's place
    q.flushEvents(KeyMatch(130, kFlushed), false);
    q.processEvents();
    Ints expected(10);
    std::iota(expected.begin(), expected.end(), 0);
    for (int key = 100; key < 140; ++key) {
        if (key != 130)
            expected.push_back(key == 120 ? 200 : key);
    }
    EXPECT_EQ(l.trace(), expected);
    EXPECT_EQ(counts(q.getCounters()), (Counts{51, 49, 1, 1, 1}));

    // Wrapped without growing: 300 to 303 at the end of the array, 304 to 307
    // at its start; the walks cross from one to the other.
    Ledger w;
    EventQueue wrapped(nullptr, {});
    for (int key = 0; key < 12; ++key) {
        auto* event = new TestEvent(w, key);
        if (key == 7) {
            event->onExecute = [&] {
                for (int late = 300; late < 308; ++late)
                    wrapped.postEvent(new TestEvent(w, late), nullptr, nullptr);
                return true;
            };
        }
        wrapped.postEvent(event, nullptr, nullptr);
    }
    wrapped.processEvents();
    const KeyMatch match306(306);
    wrapped.postEvent(new TestEvent(w, 400), &match306, nullptr);
    wrapped.flushEvents(KeyMatch(301, kFlushed), false);
    wrapped.flushEvents(KeyMatch(305, kFlushed), false);
    wrapped.processEvents();
    expected.assign(12, 0);
    std::iota(expected.begin(), expected.end(), 0);
    for (int key : {300, 302, 303, 304, 400, 307})
        expected.push_back(key);
    EXPECT_EQ(w.trace(), expected);
}
