#include <gtest/gtest.h>

#include <thread>

#include "kestrel/events.h"
#include "support/counting_events.h"

using kestrel::EventManager;
using kestrel_test::CountingInfo;
using kestrel_test::EventCounters;
using kestrel_test::MatchId;
using kestrel_test::RecordingEvent;
using kestrel_test::RecordingHandler;
using kestrel_test::SumMerge;
using Ids = std::vector<int>;
using Counts = std::vector<std::size_t>;

namespace {

class EventManagerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(EventManager::getInstance(), nullptr);
        manager = EventManager::createInstance(new RecordingHandler(calls, handlers));
    }
    void TearDown() override { EventManager::destroyInstance(); }

    RecordingEvent* event(int id, bool executable = true) {
        auto* e = new RecordingEvent(c, id, &trace);
        e->executable = executable;
        return e;
    }

    EventCounters c;
    Ids trace;
    Counts calls;
    std::atomic<int> handlers{0};
    EventManager* manager = nullptr;
};

}  // namespace

TEST_F(EventManagerTest, SingletonBelongsToTheThreadThatCreatedIt) {
    std::atomic<int> unused{0};
    RecordingHandler second(calls, unused);
    EXPECT_EQ(EventManager::createInstance(&second), manager);
    EXPECT_EQ(EventManager::getInstance(), manager);
    EXPECT_TRUE(manager->isProcessingThread());
    bool elsewhere = true;
    std::thread([&] { elsewhere = manager->isProcessingThread(); }).join();
    EXPECT_FALSE(elsewhere);

    manager->postEvent(event(1), nullptr, nullptr);
    EventManager::destroyInstance();
    EXPECT_EQ(EventManager::getInstance(), nullptr);
    EXPECT_EQ(c.eventsDestroyed, 1);
    EXPECT_EQ(c.executed, 0);
    EXPECT_EQ(handlers, 1);
    EXPECT_EQ(unused, 0);
    EventManager::destroyInstance();

    // Without a manager, events are dropped and flushes do nothing.
    EXPECT_FALSE(event(2)->serviceEvent(true));
    kestrel::IEvent::flushEvents(MatchId(-1), true);
    EXPECT_EQ(c.eventsDestroyed, 2);

    std::thread([&] { manager = EventManager::createInstance(nullptr); }).join();
    EXPECT_FALSE(manager->isProcessingThread());
}

TEST_F(EventManagerTest, ServiceEventRunsAtOnceOnlyOnTheProcessingThread) {
    auto* failing = event(1);
    failing->result = false;
    EXPECT_FALSE(failing->serviceEvent(true));
    EXPECT_TRUE(event(2, false)->serviceEvent(true));
    auto* throwing = event(3);
    throwing->onExecute = [] { throw 7; };
    EXPECT_THROW(throwing->serviceEvent(true), int);
    EXPECT_EQ(trace, (Ids{1, 3}));
    EXPECT_EQ(c.eventsDestroyed, 3);

    EXPECT_TRUE(event(4)->serviceEvent(false));
    std::thread([&] {
        EXPECT_TRUE(event(5)->serviceEvent(true));
        EXPECT_TRUE(event(6)->serviceEvent(true));
    }).join();
    EXPECT_EQ(calls, Counts{1});
    EXPECT_EQ(trace, (Ids{1, 3}));
    manager->processEvents();
    EXPECT_EQ(trace, (Ids{1, 3, 4, 5, 6}));

    // Coalescing through the manager; flushing with service runs on the caller.
    auto* info = new CountingInfo(c, false, 1);
    event(7)->serviceOrCoalesceEvent(false, nullptr, nullptr);
    event(8)->serviceOrCoalesceEvent(false, nullptr, nullptr);
    const MatchId match7(7);
    const SumMerge merge;
    (new RecordingEvent(c, 9, &trace, info))->serviceOrCoalesceEvent(false, &match7, &merge);
    kestrel::IEvent::flushEvents(MatchId(8), true);
    EXPECT_EQ(trace, (Ids{1, 3, 4, 5, 6, 8}));
    manager->processEvents();
    EXPECT_EQ(trace, (Ids{1, 3, 4, 5, 6, 8, 9}));
    EXPECT_EQ(c.eventsDestroyed, 9);
    EXPECT_EQ(c.infosDestroyed, 1);
}
