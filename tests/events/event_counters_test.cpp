// The counters of queues, event threads and the event manager: every event
// handed over is counted as posted and then under exactly one fate.
#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

#include "support/event_fakes.h"
#include "support/timing.h"

using namespace kestrel;
using namespace kestrel_test;

namespace {

using Counters = EventQueue::Counters;

void expectCounts(const Counters& c, std::uint64_t posted, std::uint64_t executed,
                  std::uint64_t coalesced, std::uint64_t flushed, std::uint64_t discarded) {
    EXPECT_EQ(c.posted, posted);
    EXPECT_EQ(c.executed, executed);
    EXPECT_EQ(c.coalesced, coalesced);
    EXPECT_EQ(c.flushed, flushed);
    EXPECT_EQ(c.discarded, discarded);
}

struct Throwing : IMatchEventFcn {
    bool operator()(IEvent*) const override { throw std::runtime_error("match"); }
};

}  // namespace

TEST(EventCountersTest, AQueueCountsEachEventOnceUnderItsFate) {
    Ledger l;
    EventQueue q(nullptr, {});
    expectCounts(q.getCounters(), 0, 0, 0, 0, 0);
    const KeyMatch match1(1);
    q.postEvent(nullptr, nullptr, nullptr);  // not an event: not counted
    q.postEvent(new TestEvent(l, 1), &match1, nullptr);
    q.postEvent(new TestEvent(l, 1), &match1, nullptr);  // replaces the first
    q.postEvent(new TestEvent(l, 2), nullptr, nullptr);
    auto* idle = new TestEvent(l, 3);
    idle->executable = false;
    q.postEvent(idle, nullptr, nullptr);
    auto* failing = new TestEvent(l, 4);
    failing->onExecute = []() -> bool { throw 4; };  // still executed
    q.postEvent(failing, nullptr, nullptr);
    const Throwing throwing;
    EXPECT_THROW(q.postEvent(new TestEvent(l, 5), &throwing, nullptr), std::runtime_error);
    expectCounts(q.getCounters(), 6, 0, 1, 0, 1);

    q.processEvents();
    expectCounts(q.getCounters(), 6, 3, 1, 0, 2);

    // Flushes: one without service, one serving an executable and a
    // non-executable event, and one whose match throws after accepting one.
    for (int key : {7, 8, 9, 10, 11}) {
        q.postEvent(new TestEvent(l, key), nullptr, nullptr);
    }
    q.flushEvents(KeyMatch(7, kFlushed), false);
    auto* dead = new TestEvent(l, 12);
    dead->executable = false;
    q.postEvent(dead, nullptr, nullptr);
    q.flushEvents(KeyMatch(8, kFlushed), true);
    q.flushEvents(KeyMatch(12, kFlushed), true);
    int asked = 0;
    const KeyMatch thenThrow(9, kFlushed, [&] {
        if (++asked == 2) {
            throw std::runtime_error("flush");
        }
    });
    EXPECT_THROW(q.flushEvents(thenThrow, true), std::runtime_error);
    expectCounts(q.getCounters(), 12, 4, 1, 4, 5);  // 10 and 11 still queued
    EXPECT_EQ(l.fates[kExecuted], 4);
    EXPECT_EQ(l.fates[kReplaced], 1);
}

TEST(EventCountersTest, AnEventThreadAddsUpItsRunsAndItsRefusals) {
    Ledger l;
    EventThread thread;
    const KeyMatch match1(1);
    thread.postEvent(new TestEvent(l, 1), nullptr, nullptr);  // not running: refused
    expectCounts(thread.getCounters(), 1, 0, 0, 0, 1);
    for (int run = 0; run < 2; ++run) {
        ASSERT_TRUE(thread.start());
        // Held by the first event, so that the others wait in the queue.
        std::atomic<bool> release{false};
        auto* gate = new TestEvent(l, 0);
        gate->onExecute = [&] {
            waitFor([&] { return release.load(); }, 10 * kSchedulingAllowance);
            return true;
        };
        thread.postEvent(gate, nullptr, nullptr);
        thread.postEvent(new TestEvent(l, 1), &match1, nullptr);
        thread.postEvent(new TestEvent(l, 1), &match1, nullptr);  // coalesces
        thread.postEvent(new TestEvent(l, 2), nullptr, nullptr);
        thread.flushEvents(KeyMatch(2, kFlushed));
        // Read from under the queue's lock, by a match object.
        struct Reads : IMatchEventFcn {
            EventThread& thread;
            explicit Reads(EventThread& t) : thread(t) {}
            bool operator()(IEvent*) const override {
                const Counters c = thread.getCounters();
                return c.posted < c.executed + c.coalesced + c.discarded;
            }
        } reads(thread);
        thread.flushEvents(reads);
        release = true;
        thread.stop();
    }
    const Counters c = thread.getCounters();
    EXPECT_EQ(c.posted, 9u);
    EXPECT_EQ(c.flushed, 2u);
    EXPECT_EQ(c.posted, c.executed + c.coalesced + c.discarded);
    EXPECT_EQ(static_cast<int>(c.executed), l.fates[kExecuted].load());
    EXPECT_EQ(static_cast<int>(c.coalesced), l.fates[kReplaced].load());
    EXPECT_EQ(l.destroyed(), 9);
}

TEST(EventCountersTest, ReadingsWhileEventsFlowNeverShowAnEventLeavingBeforeItsPost) {
    Ledger l;
    EventThread thread;
    ASSERT_TRUE(thread.start());
    std::atomic<bool> done{false};
    std::thread reader([&] {
        Counters last;
        while (!done) {
            const Counters c = thread.getCounters();
            ASSERT_GE(c.posted, c.executed + c.coalesced + c.discarded);
            ASSERT_GE(c.posted, last.posted);
            ASSERT_GE(c.executed, last.executed);
            last = c;
        }
    });
    const KeyMatch match(3);
    std::thread other([&] {
        for (int i = 0; i < 2000; ++i) {
            thread.postEvent(new TestEvent(l, i % 5), &match, nullptr);
        }
    });
    for (int i = 0; i < 2000; ++i) {
        thread.postEvent(new TestEvent(l, i), nullptr, nullptr);
    }
    other.join();
    thread.stop();
    done = true;
    reader.join();
    const Counters c = thread.getCounters();
    EXPECT_EQ(c.posted, 4000u);
    EXPECT_EQ(c.posted, c.executed + c.coalesced + c.discarded);

    // The event manager shows its queue's counts.
    EventManager* manager = EventManager::createInstance(nullptr);
    manager->postEvent(new TestEvent(l, 1), nullptr, nullptr);
    manager->processEvents();
    expectCounts(manager->getCounters(), 1, 1, 0, 0, 0);
    EventManager::destroyInstance();
}

TEST(EventCountersTest, TheQueueKeepsItsOrderWhileItsStorageWrapsAndGrows) {
    Ledger l;
    EventQueue q(nullptr, {});
    // During the pass the head moves on while the executed first event
    // appends 40 more: the storage wraps and grows with its head inside.
    auto* first = new TestEvent(l, 0);
    first->onExecute = [&] {
        for (int key = 100; key < 140; ++key) {
            q.postEvent(new TestEvent(l, key), nullptr, nullptr);
        }
        return true;
    };
    q.postEvent(first, nullptr, nullptr);
    for (int key = 1; key < 10; ++key) {
        q.postEvent(new TestEvent(l, key), nullptr, nullptr);
    }
    q.processEvents();
    const KeyMatch match120(120);
    q.postEvent(new TestEvent(l, 200), &match120, nullptr);  // takes 120's place
    q.flushEvents(KeyMatch(130, kFlushed), false);
    q.processEvents();
    std::vector<int> expected;
    for (int key = 0; key < 10; ++key) {
        expected.push_back(key);
    }
    for (int key = 100; key < 140; ++key) {
        if (key != 130) {
            expected.push_back(key == 120 ? 200 : key);
        }
    }
    EXPECT_EQ(l.trace(), expected);
    expectCounts(q.getCounters(), 51, 49, 1, 1, 1);
}
