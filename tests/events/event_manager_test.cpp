// The process-wide event manager: its handler, and an owner that destroys
// the manager from code that the manager runs.
#include <gtest/gtest.h>

#include <string>

#include "events/event_case.h"

using namespace kestrel;
using namespace kestrel_test;

TEST_F(EventCaseTest, TheHandlerMayPostFromItsNotification) {
    handler->onNotify = [this] { event(50)->serviceEvent(false); };
    event(1)->serviceEvent(false);
    EXPECT_EQ(l.told(), Ints{1});
    finish({98, 1, 50, 99});
}

// The owner destroys the event manager from code that the manager runs: the
// instance goes once the call in progress returns, its queued events
// unexecuted; a new instance may be made at once.
enum Where { kInEvent, kInServicingFlush, kInMatch, kInMerge, kInReplaced, kInHandler };

class EventManagerReentryTest : public ::testing::TestWithParam<Where> {};

TEST_P(EventManagerReentryTest, DestroyInstanceFromCodeTheManagerRunsEndsItsCallFirst) {
    const auto destroy = [] { EventManager::destroyInstance(); };
    const Where where = GetParam();
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

std::string nameOf(const ::testing::TestParamInfo<Where>& where) {
    const char* const names[] = {"InEvent", "InServicingFlush", "InMatch",
                                 "InMerge", "InReplacedEvent",  "InHandler"};
    return names[where.param];
}

INSTANTIATE_TEST_SUITE_P(Where, EventManagerReentryTest,
                         ::testing::Values(kInEvent, kInServicingFlush, kInMatch, kInMerge,
                                           kInReplaced, kInHandler),
                         nameOf);
