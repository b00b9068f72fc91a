// The event queue and log on their own; then the event manager and event
// threads case by case, with callers that throw or re-enter, each case
// followed by another thread's posts and stop, which a lock left held blocks.
#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

#include "support/event_fakes.h"
#include "support/other_thread.h"
#include "threads/signal_hook.h"

using namespace kestrel;
using namespace kestrel_test;
using Ints = std::vector<int>;

TEST(EventQueueTest, CoalescesFlushesAndPassesOverWhatWasQueuedAtTheStartWithoutNesting) {
    Ledger l;
    {
        EventQueue q(new Handler(l), {});
        const KeyMatch match1(1);
        const SumMerge merge;
        const auto post = [&](TestEvent* e, const KeyMatch* match = nullptr) {
            q.postEvent(e, match, &merge);
            return e;
        };
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
        q.flushEvents(KeyMatch(2, kFlushed), false);
        q.flushEvents(KeyMatch(5, kFlushed), true);  // runs the executable 5 only
        q.processEvents();                           // only the events queued when it began
        EXPECT_EQ(l.trace(), (Ints{5, 3, 6, 4}));
        q.processEvents();
        post(new TestEvent(l, 12));  // left for the destructor
        EXPECT_EQ(l.trace(), (Ints{5, 3, 6, 4, 10, 11}));
        EXPECT_EQ(l.told(), (Ints{1, 2, 1}));
    }
    EXPECT_TRUE(l.fates[kReplaced] == 2 && l.fates[kFlushed] == 2 && l.fates[kRefused] == 1);
    EXPECT_TRUE(l.handlers == 1 && l.destroyed() == l.created && Info::alive == 0);
}

TEST(EventInfoLogTest, KeepsTheNewestLoggableRecordsUpToItsLimitAndLocksForAnEnumerator) {
    Ledger l;
    EventInfoLog log(3);
    l.log = &log;  // an event leaves its record there when destroyed
    const auto logged = [&l](int value) { delete new TestEvent(l, 0, new Info(true, value)); };
    for (int v = 1; v <= 4; ++v)
        logged(v);  // 1 is released when 4 arrives
    EXPECT_EQ(Info::alive, 3);
    log.setMaxToLog(2);  // releases 2
    EXPECT_TRUE(log.isLogFull() && Info::alive == 2);
    log.setMaxToLog(EventInfoLog::NO_LIMIT);
    auto* e = log.getLockingEnumerator();
    std::thread other([&] { logged(5); });
    // However long the other thread tries, it cannot append; this thread still may use the log.
    EXPECT_FALSE(waitFor([&] { return log.getNumberLogged() == 3; }, 0.05));
    Ints values;
    for (; !e->isAtEnd(); e->next())
        values.push_back(static_cast<Info*>(e->getCurrent())->value);
    EXPECT_EQ(values, (Ints{3, 4}));
    delete e;
    other.join();
    log.setMaxToLog(0);  // releases every record
    logged(6);           // released at once
    EXPECT_TRUE(log.getNumberLogged() == 0 && Info::alive == 0);
}

namespace {

// An event manager with its handler and an event thread that processes what
// is queued at its stop, for a case and the checks that follow it.
struct Context {
    Ledger l;
    EventThread thread{EventThread::PROCESS_PENDING_EVENTS}, other;
    Handler* handler = new Handler(l);
    EventManager* manager = EventManager::createInstance(handler);
    std::atomic<bool> release{false};

    TestEvent* event(int key, bool throwing = false) {
        auto* e = new TestEvent(l, key, new Info(false));
        if (throwing)
            e->onExecute = []() -> bool { throw std::runtime_error("execute failed"); };
        return e;
    }
    // Occupies a thread with event 0 until release is set, then queues 2
    // (which throws) and 3.
    void holdAndQueue(EventThread& t) {
        auto* e = event(0);
        e->onExecute = [this] { return waitFor([this] { return release.load(); }); };
        e->postEvent(t);
        ASSERT_TRUE(waitFor([this] { return l.executed == 1; }));
        event(2, true)->postEvent(t);
        event(3)->postEvent(t);
    }
};

// Throws an int on its n-th call.
std::function<void()> throwOnCall(int n) {
    return [n, calls = 0]() mutable {
        if (++calls == n)
            throw 1;
    };
}

struct ThrowingMerge : IMergeEventInfoFcn {
    void operator()(IEventInfo*, IEventInfo*) const override { throw 1; }
};

struct Case {
    const char* name;
    std::function<void(Context&)> run;
    Ints trace;  // executed in this order; 98 and 99 come from another thread afterwards
};

const Case kCases[] = {
    {"the manager is one instance that services at once only on its creating thread",
     [](Context& c) {
         Handler spare(c.l);
         EXPECT_EQ(EventManager::createInstance(&spare), c.manager);
         TestEvent* e[] = {c.event(1), c.event(2), c.event(3, true)};
         e[0]->onExecute = [] { return false; };
         e[1]->executable = false;
         EXPECT_FALSE(e[0]->serviceEvent(true));  // ran at once: its own result
         EXPECT_TRUE(e[1]->serviceEvent(true));   // dropped
         EXPECT_THROW(e[2]->serviceEvent(true), std::runtime_error);
     },
     {1, 3, 98, 99}},
    {"a thread runs what was queued before it sees a stop, then refuses posts",
     [](Context& c) {
         ASSERT_TRUE(c.other.start());  // discards what is queued when it sees the stop
         c.holdAndQueue(c.other);
         std::thread stopper([&c] { c.other.stop(); });
         EXPECT_TRUE(waitFor([&c] { return !c.other.isRunning(); }));
         c.event(9)->postEvent(c.other);  // refused: stopping
         c.release = true;
         stopper.join();
     },
     {0, 2, 3, 98, 99}},
    {"execute throws in a servicing flush, merge while posting",
     [](Context& c) {
         for (int key : {1, 2, 1})
             c.event(key, key == 1)->serviceEvent(false);
         IEvent::flushEvents(KeyMatch(1, kFlushed), true);
         const KeyMatch match(2, kFlushed);  // marks 2 flushed, which its execution outranks
         const ThrowingMerge merge;
         EXPECT_THROW(c.event(4)->serviceOrCoalesceEvent(false, &match, &merge), int);
     },
     {1, 1, 98, 2, 99}},
    {"handler posts from its notification",
     [](Context& c) {
         c.handler->onNotify = [&c] { c.event(50)->serviceEvent(false); };
         c.event(1)->serviceEvent(false);
         EXPECT_EQ(c.l.told(), Ints{1});
     },
     {98, 1, 50, 99}},
    {"match throws while posting to the thread and while flushing it",
     [](Context& c) {
         c.holdAndQueue(c.thread);
         const KeyMatch match(3, kReplaced, throwOnCall(2));
         EXPECT_THROW(c.event(4)->postOrCoalesceEvent(c.thread, &match, nullptr), int);
         EXPECT_THROW(IEvent::flushEvents(c.thread, KeyMatch(-1, kFlushed, throwOnCall(2))), int);
     },
     {0, 3, 98, 99}},
    // A post wakes its thread once it has left the thread's locks: a post made
    // inside another post must still wake its own thread.
    {"match posts to another thread while posting",
     [](Context& c) {
         c.holdAndQueue(c.thread);
         ASSERT_TRUE(c.other.start());
         const KeyMatch match(7, kReplaced, [&c] { c.event(5)->postEvent(c.other); });
         c.event(4)->postOrCoalesceEvent(c.thread, &match, nullptr);  // one 5 per queued event
         EXPECT_TRUE(waitFor([&c] { return c.l.executed == 3; }));
     },
     {0, 5, 5, 2, 3, 4, 98, 99}},
};

}  // namespace

TEST(EventThreadAndManagerTest, CasesEndAsDefinedLoseNoEventAndLeaveNoLockHeld) {
    for (const Case& test : kCases) {
        SCOPED_TRACE(test.name);
        Context c;
        ASSERT_TRUE(c.thread.start());
        test.run(c);
        c.release = true;
        runOnAnotherThread([&] {
            c.event(98)->postEvent(c.thread);
            EXPECT_TRUE(c.thread.stop());                  // its last pass runs everything queued
            c.event(96)->postEvent(c.thread);              // refused: stopped
            EXPECT_TRUE(c.event(99)->serviceEvent(true));  // queued: not the owner
            c.other.stop();
        });
        c.manager->processEvents();
        EventManager::destroyInstance();
        EventManager::destroyInstance();
        EXPECT_FALSE(c.event(96)->serviceEvent(true));  // refused: no manager
        EXPECT_EQ(c.l.trace(), test.trace);
        EXPECT_TRUE(c.l.fates[kWrong] == 0 && c.l.destroyed() == c.l.created && Info::alive == 0);
    }
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
