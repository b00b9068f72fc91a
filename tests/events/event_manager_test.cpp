#include <gtest/gtest.h>

#include <thread>

#include "support/event_fakes.h"

using namespace kestrel;
using namespace kestrel_test;
using Keys = std::vector<int>;

TEST(EventManagerTest, ServicesAtOnceOnlyOnTheThreadThatCreatedIt) {
    Ledger l;
    ASSERT_EQ(EventManager::getInstance(), nullptr);
    EXPECT_FALSE((new TestEvent(l, 0))->serviceEvent(true));  // no manager: dropped
    EventManager* m = EventManager::createInstance(new Handler(l));
    Handler spare(l);
    EXPECT_EQ(EventManager::createInstance(&spare), m);
    EXPECT_EQ(EventManager::getInstance(), m);

    auto* failing = new TestEvent(l, 1);
    failing->onExecute = [] { return false; };
    EXPECT_FALSE(failing->serviceEvent(true));
    auto* pointless = new TestEvent(l, 2);
    pointless->executable = false;
    EXPECT_TRUE(pointless->serviceEvent(true));
    auto* throwing = new TestEvent(l, 3);
    throwing->onExecute = []() -> bool { throw 7; };
    EXPECT_THROW(throwing->serviceEvent(true), int);
    EXPECT_EQ(l.destroyed, 4);

    bool elsewhere = true;
    std::thread([&] {
        elsewhere = m->isProcessingThread();
        EXPECT_TRUE((new TestEvent(l, 4))->serviceEvent(true));
        EXPECT_TRUE((new TestEvent(l, 5))->serviceEvent(true));
        const KeyMatch match4(4);
        (new TestEvent(l, 6))->serviceOrCoalesceEvent(true, &match4, nullptr);
    }).join();
    EXPECT_FALSE(elsewhere);
    EXPECT_TRUE((new TestEvent(l, 7))->serviceEvent(false));
    EXPECT_EQ(l.counts, std::vector<std::size_t>{1});
    IEvent::flushEvents(KeyMatch(5, true), true);
    EXPECT_EQ(l.trace, (Keys{1, 3, 5}));
    m->processEvents();
    EXPECT_EQ(l.trace, (Keys{1, 3, 5, 6, 7}));

    (new TestEvent(l, 8))->serviceEvent(false);
    EventManager::destroyInstance();
    EventManager::destroyInstance();
    EXPECT_EQ(EventManager::getInstance(), nullptr);
    IEvent::flushEvents(KeyMatch(-1), true);
    EXPECT_EQ(l.handlersDestroyed, 1);
    EXPECT_EQ(l.destroyed, l.created);
    EXPECT_EQ(l.trace.size(), 5U);

    std::thread([&] { m = EventManager::createInstance(nullptr); }).join();
    EXPECT_FALSE(m->isProcessingThread());
    EventManager::destroyInstance();
}
