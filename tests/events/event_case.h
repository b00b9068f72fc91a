// One case of the events subsystem with callers that throw or re-enter: an
// event manager with its handler, and an event thread that processes what is
// queued at its stop. finish() then has another thread post and stop, which a
// lock left held blocks, and checks that every event met its end.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>

#include "support/event_fakes.h"
#include "support/other_thread.h"

namespace kestrel_test {

class EventCaseTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(thread.start()); }
    void TearDown() override {
        release = true;
        kestrel::EventManager::destroyInstance();
    }

    TestEvent* event(int key, bool throwing = false) {
        auto* e = new TestEvent(l, key, new Info(false));
        if (throwing)
            e->onExecute = []() -> bool { throw std::runtime_error("execute failed"); };
        return e;
    }
    // Occupies a thread with event 0 until release is set, then queues 2
    // (which throws) and 3.
    void holdAndQueue(kestrel::EventThread& t) {
        auto* e = event(0);
        e->onExecute = [this] { return waitFor([this] { return release.load(); }); };
        e->postEvent(t);
        ASSERT_TRUE(waitFor([this] { return l.executed == 1; }));
        event(2, true)->postEvent(t);
        event(3)->postEvent(t);
    }
    // trace: the keys executed in this order; 98 and 99 come from finish().
    void finish(const Ints& trace) {
        release = true;
        runOnAnotherThread([&] {
            event(98)->postEvent(thread);
            EXPECT_TRUE(thread.stop());                  // its last pass runs everything queued
            event(96)->postEvent(thread);                // refused: stopped
            EXPECT_TRUE(event(99)->serviceEvent(true));  // queued: not the owner
            other.stop();
        });
        manager->processEvents();
        kestrel::EventManager::destroyInstance();
        kestrel::EventManager::destroyInstance();
        EXPECT_FALSE(event(96)->serviceEvent(true));  // refused: no manager
        EXPECT_EQ(l.trace(), trace);
        EXPECT_TRUE(l.fates[kWrong] == 0 && l.destroyed() == l.created && Info::alive == 0);
    }

    Ledger l;
    kestrel::EventThread thread{kestrel::EventThread::PROCESS_PENDING_EVENTS}, other;
    Handler* handler = new Handler(l);
    kestrel::EventManager* manager = kestrel::EventManager::createInstance(handler);
    std::atomic<bool> release{false};
};

// Throws an int on its n-th call.
inline std::function<void()> throwOnCall(int n) {
    return [n, calls = 0]() mutable {
        if (++calls == n)
            throw 1;
    };
}

}  // namespace kestrel_test
