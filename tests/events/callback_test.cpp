// Caller code that the events subsystem runs while it holds state: match and
// merge objects, destructors of replaced and flushed events, handlers,
// executing events and log records. Each re-enters, destroys its owner or
// runs out of memory; nothing may be lost, freed twice or left locked.
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

#include "core/contract.h"
#include "support/event_fakes.h"
#include "support/other_thread.h"

using namespace kestrel;
using namespace kestrel_test;
using Ints = std::vector<int>;

namespace {

// Allocations fail on this thread while it is set (where the library's
// allocations come here: not into a Windows DLL).
thread_local bool failAllocations = false;

struct Match : IMatchEventFcn {
    explicit Match(std::function<bool(TestEvent&)> f) : accept(std::move(f)) {}
    bool operator()(IEvent* queued) const override {
        return accept(*static_cast<TestEvent*>(queued));
    }
    std::function<bool(TestEvent&)> accept;
};

struct Merge : IMergeEventInfoFcn {
    explicit Merge(std::function<void()> f) : run(std::move(f)) {}
    void operator()(IEventInfo*, IEventInfo*) const override { run(); }
    std::function<void()> run;
};

// An event whose destructor runs a hook first.
struct Hooked : TestEvent {
    Hooked(Ledger& l, int k, std::function<void()> h)
        : TestEvent(l, k, new Info(false)), hook(std::move(h)) {}
    ~Hooked() override { hook(); }
    std::function<void()> hook;
};

}  // namespace

// This program's new and delete are malloc() and free() throughout; GCC's
// check cannot see that once they are inlined.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

void* operator new(std::size_t size) {
    if (!failAllocations) {
        if (void* p = std::malloc(size == 0 ? 1 : size))
            return p;
    }
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
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
        post(15);  // left for the destructor
    }
    EXPECT_TRUE(l.fates[kWrong] == 0 && l.destroyed() == l.created && Info::alive == 0);
}

// The owner destroys the event manager from code that the manager runs: the
// instance goes once the call in progress returns, its queued events
// unexecuted; a new instance may be made at once.
TEST(EventManagerReentryTest, DestroyInstanceFromCodeTheManagerRunsEndsItsCallFirst) {
    const auto destroy = [] { EventManager::destroyInstance(); };
    enum Where { kInEvent, kInServicingFlush, kInMatch, kInMerge, kInReplaced, kInHandler, kInEnd };
    for (int where = kInEvent; where < kInEnd; ++where) {
        SCOPED_TRACE(where);
        Ledger l;
        auto* handler = new Handler(l);
        EventManager* manager = EventManager::createInstance(handler);
        const auto event = [&](int key) { return new TestEvent(l, key, new Info(false, key)); };
        if (where == kInHandler)
            handler->onNotify = destroy;
        manager->postEvent(event(1), nullptr, nullptr);
        manager = EventManager::getInstance();
        if (manager != nullptr) {
            auto* second = event(2);
            if (where == kInEvent || where == kInServicingFlush)
                second->onExecute = [&] {
                    destroy();
                    EXPECT_EQ(EventManager::getInstance(), nullptr);
                    // A new manager may come at once; its events are its own.
                    EventManager::createInstance(nullptr)->postEvent(event(7), nullptr, nullptr);
                    return true;
                };
            manager->postEvent(second, nullptr, nullptr);
            manager->postEvent(event(3), nullptr, nullptr);
            const Match match([&](TestEvent& e) {
                const bool hit = e.key == 2;
                if (where == kInMatch && hit)
                    destroy();  // destroys e as well
                return hit;
            });
            const Merge merge(where == kInMerge ? std::function<void()>(destroy) : [] {});
            const Match takes4([](TestEvent& e) { return e.key == 4; });
            if (where == kInReplaced)
                manager->postEvent(new Hooked(l, 4, destroy), nullptr, nullptr);
            if (where == kInMatch || where == kInMerge || where == kInReplaced)
                manager->postEvent(event(5), where == kInReplaced ? &takes4 : &match, &merge);
            if (where == kInServicingFlush)
                manager->flushEvents(KeyMatch(-1, kFlushed), true);
            else if (EventManager::getInstance() != nullptr)
                manager->processEvents();
        }
        EXPECT_EQ(l.handlers, 1);
        // A pass ends with the event that destroyed the manager; a flush
        // serves what it had taken.
        const Ints ran = where == kInEvent            ? Ints{1, 2}
                         : where == kInServicingFlush ? Ints{1, 2, 3}
                                                      : Ints{};
        EXPECT_EQ(l.trace(), ran);
        if (EventManager::getInstance() != nullptr) {
            EventManager::getInstance()->processEvents();  // the new one's event
            EXPECT_EQ(l.trace().back(), 7);
        }
        EventManager::destroyInstance();
        EXPECT_TRUE(l.fates[kWrong] == 0 && l.destroyed() == l.created && Info::alive == 0);
    }
}

// The holder of an enumerator may still change the log: what it drops stays
// alive and in the enumerator's view until the enumerator goes. Running out
// of memory loses neither the new record nor, but for a full log, the oldest.
TEST(EventInfoLogReentryTest, ChangesUnderAnEnumeratorWaitForItAndMemoryRunningOutLosesNothing) {
    Ledger l;
    const auto values = [](TLockingEnumerator<std::list<IEventInfo*>>& e) {
        Ints v;
        for (e.reset(); !e.isAtEnd(); e.next())
            v.push_back(static_cast<Info*>(e.getCurrent())->value);
        return v;
    };
    struct NoMemory {
        NoMemory() { failAllocations = true; }
        ~NoMemory() { failAllocations = false; }
    };
    // The record of an event that is then destroyed: the log holds its last reference.
    const auto append = [&](EventInfoLog& log, int value, bool withoutMemory = false) {
        std::unique_ptr<TestEvent> event(new TestEvent(l, 0, new Info(true, value)));
        if (withoutMemory) {
            const NoMemory none;
            log.append(event->getEventInfo());
        } else {
            log.append(event->getEventInfo());
        }
    };
    {
        EventInfoLog log(2);
        append(log, 1);
        append(log, 2);
        auto* outer = log.getLockingEnumerator();
        auto* inner = log.getLockingEnumerator();
        outer->next();
        append(log, 3);  // full: 1 is dropped, yet stays for the enumerators
        EXPECT_TRUE(log.getNumberLogged() == 2 && log.isLogFull() && Info::alive == 3);
        delete inner;
        EXPECT_EQ(Info::alive, 3);
        EXPECT_EQ(static_cast<Info*>(outer->getCurrent())->value, 2);
        log.setMaxToLog(1);  // drops 2
        log.clear();         // drops 3
        append(log, 4);
        EXPECT_EQ(values(*outer), (Ints{1, 2, 3, 4}));
        EXPECT_TRUE(log.getNumberLogged() == 1 && Info::alive == 4);
        delete outer;  // releases 1, 2 and 3
        EXPECT_EQ(Info::alive, 1);
        std::unique_ptr<TLockingEnumerator<std::list<IEventInfo*>>> e(log.getLockingEnumerator());
        EXPECT_EQ(values(*e), (Ints{4}));
    }
    EXPECT_EQ(Info::alive, 0);
#if !defined(_WIN32)  // allocations inside a DLL do not come to this program's operator new
    {
        EventInfoLog log(3);
        append(log, 1, true);  // nowhere to keep it: released
        EXPECT_TRUE(log.getNumberLogged() == 0 && Info::alive == 0);
        append(log, 2);
        append(log, 3);
        append(log, 4, true);  // not full, yet it takes the place of the oldest
        append(log, 5);
        append(log, 6, true);  // full: takes the place of the oldest
        std::unique_ptr<TLockingEnumerator<std::list<IEventInfo*>>> e(log.getLockingEnumerator());
        EXPECT_EQ(values(*e), (Ints{4, 5, 6}));
        EXPECT_EQ(Info::alive, 3);
    }
    EXPECT_EQ(Info::alive, 0);
#endif
}

// A queue of one event into which a post coalesces: the handler, told when
// that event arrived, is not told again; the end of a pass still tells it
// about one coalesced during the pass; an event thread runs the replacement.
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
#if !KESTREL_CONTRACT_CHECKS  // which report this call instead (contract_checks_test.cpp)
        // An event that stops its own thread: the stop cannot join there, yet
        // the thread ends after the pass and the owner's stop() completes it.
        auto* stopping = new TestEvent(t, 4);
        stopping->onExecute = [&] { return thread.stop(); };
        stopping->postEvent(thread);
        (new TestEvent(t, 5))->postEvent(thread);
        EXPECT_TRUE(waitFor([&] { return !thread.isRunning(); }));
        runOnAnotherThread([&] { EXPECT_TRUE(thread.stop() && thread.start()); });
#endif
    }
    EXPECT_TRUE(l.destroyed() == l.created && t.destroyed() == t.created && l.fates[kWrong] == 0);
}
