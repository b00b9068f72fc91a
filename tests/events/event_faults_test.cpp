// Caller code that throws or re-enters where the event manager or an event
// thread runs it. Faults that the queue tests cover on one thread are taken
// here through the manager and the thread, whose locks must be free again:
// another thread then posts, flushes and stops. Every event is destroyed once.
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>

#include "support/event_fakes.h"
#include "support/other_thread.h"

using namespace kestrel;
using namespace kestrel_test;

namespace {

struct Context {
    Ledger l;
    EventThread thread;
    std::atomic<bool> release{false}, handlerPosts{false};
};

// Posts event 50 to the manager from inside its notification when asked.
class PostingHandler : public Handler {
  public:
    explicit PostingHandler(Context& c) : Handler(c.l), _c(c) {}
    void notifyEventsToProcess(std::size_t count) const override {
        Handler::notifyEventsToProcess(count);
        if (_c.handlerPosts.exchange(false)) {
            EventManager::getInstance()->postEvent(new TestEvent(_c.l, 50), nullptr, nullptr);
        }
    }

  private:
    Context& _c;
};

std::size_t traced(Ledger& l) {
    return static_cast<std::size_t>(l.executed.load());
}

// A key match that throws an int on its throwAt-th call.
struct FaultyMatch : KeyMatch {
    FaultyMatch(int k, Fate f, int throwAt) : KeyMatch(k, f), _throwAt(throwAt) {}
    bool operator()(IEvent* event) const override {
        if (++_calls == _throwAt) {
            throw 1;
        }
        return KeyMatch::operator()(event);
    }
    const int _throwAt;
    mutable int _calls = 0;
};

struct ThrowingMerge : IMergeEventInfoFcn {
    void operator()(IEventInfo*, IEventInfo*) const override { throw 1; }
};

TestEvent* event(Context& c, int key, bool throwing = false) {
    auto* e = new TestEvent(c.l, key, new Info(false));
    if (throwing) {
        e->onExecute = []() -> bool { throw std::runtime_error("execute failed"); };
    }
    return e;
}

// Occupies the event thread with event 0 until release is set, then queues 2 and 3.
void holdAndQueue(Context& c) {
    auto* e = event(c, 0);
    e->onExecute = [&c] { return waitFor([&c] { return c.release.load(); }); };
    e->postEvent(c.thread);
    ASSERT_TRUE(waitFor([&c] { return traced(c.l) == 1; }));
    event(c, 2)->postEvent(c.thread);
    event(c, 3)->postEvent(c.thread);
}

struct Fault {
    const char* name;
    bool onThread;  // the event thread, else the event manager
    std::function<void(Context&)> inject;
    std::vector<int> trace;  // executed in this order; 99 comes from the other thread
};

const Fault kFaults[] = {
    {"execute throws in a servicing flush",
     false,
     [](Context& c) {
         for (int key : {1, 2, 1}) {
             event(c, key, key == 1)->serviceEvent(false);
         }
         IEvent::flushEvents(KeyMatch(1, kFlushed), true);
     },
     {1, 1, 2, 99}},
    {"merge throws while posting",
     false,
     [](Context& c) {
         event(c, 1)->serviceEvent(false);
         const KeyMatch match(1, kFlushed);  // marks 1 flushed, which its execution outranks
         const ThrowingMerge merge;
         EXPECT_THROW(event(c, 2)->serviceOrCoalesceEvent(false, &match, &merge), int);
     },
     {1, 99}},
    {"handler posts from its notification",
     false,
     [](Context& c) {
         c.handlerPosts = true;
         event(c, 1)->serviceEvent(false);
         EXPECT_EQ(c.l.told(), std::vector<int>{1});
     },
     {1, 50, 99}},
    {"execute throws on the thread",
     true,
     [](Context& c) {
         event(c, 1, true)->postEvent(c.thread);
         event(c, 2)->postEvent(c.thread);
     },
     {1, 2, 99}},
    {"match throws while posting to the thread",
     true,
     [](Context& c) {
         holdAndQueue(c);
         const FaultyMatch match(3, kReplaced, 2);
         EXPECT_THROW(event(c, 4)->postOrCoalesceEvent(c.thread, &match, nullptr), int);
     },
     {0, 2, 3, 99}},
    {"match throws while flushing the thread",
     true,
     [](Context& c) {
         holdAndQueue(c);
         EXPECT_THROW(IEvent::flushEvents(c.thread, FaultyMatch(-1, kFlushed, 2)), int);
     },
     {0, 3, 99}},
};

TEST(EventFaultTest, FaultsEndAsDefinedLoseNoEventAndLeaveNoLockHeld) {
    for (const Fault& fault : kFaults) {
        SCOPED_TRACE(fault.name);
        Context c;
        EventManager* manager = EventManager::createInstance(new PostingHandler(c));
        ASSERT_TRUE(c.thread.start());
        fault.inject(c);
        c.release = true;
        runOnAnotherThread([&] {
            if (fault.onThread) {
                IEvent::flushEvents(c.thread, KeyMatch(98));
                event(c, 99)->postEvent(c.thread);
                EXPECT_TRUE(waitFor([&] { return traced(c.l) == fault.trace.size(); }));
                EXPECT_TRUE(c.thread.stop());
            } else {
                IEvent::flushEvents(KeyMatch(98), false);
                EXPECT_TRUE(event(c, 99)->serviceEvent(true));  // queued: not the owner
            }
        });
        manager->processEvents();
        EventManager::destroyInstance();
        c.thread.stop();
        EXPECT_EQ(c.l.trace(), fault.trace);
        EXPECT_EQ(c.l.fates[kWrong], 0);
        EXPECT_EQ(c.l.destroyed(), c.l.created);
        EXPECT_EQ(Info::alive, 0);
    }
}

}  // namespace
