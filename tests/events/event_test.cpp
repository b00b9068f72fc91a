#include <gtest/gtest.h>

#include <random>
#include <thread>

#include "support/event_fakes.h"
#include "support/timing.h"

using namespace kestrel;
using namespace kestrel_test;
using Ints = std::vector<int>;

TEST(EventQueueTest, CoalescesInPlaceNotifiesOnlyWhenItFillsOrAPassLeavesEventsAndNeverNests) {
    Ledger l;
    {
        EventQueue q(new Handler(l), {});
        const KeyMatch match1(1);
        const SumMerge merge;
        q.processEvents();  // empty: tells nothing
        q.postEvent(new TestEvent(l, 1, new Info(false, 10)), &match1, &merge);  // appended
        q.postEvent(new TestEvent(l, 2), nullptr, nullptr);
        q.postEvent(new TestEvent(l, 1), nullptr, nullptr);  // appended although it matches
        auto* merged = new Info(false, 5);
        q.postEvent(new TestEvent(l, 3, merged), &match1, &merge);  // replaces the first 1
        EXPECT_EQ(merged->value, 15);
        auto* nesting = new TestEvent(l, 4, new Info(false));  // replaces the other 1: no merge
        nesting->onExecute = [&] {
            q.postEvent(new TestEvent(l, 10), nullptr, nullptr);
            q.processEvents();  // returns at once
            q.postEvent(new TestEvent(l, 11), nullptr, nullptr);
            return true;
        };
        q.postEvent(nesting, &match1, &merge);
        q.postEvent(new TestEvent(l, 5), &match1, &merge);  // appended
        q.processEvents();                                  // only the events queued when it began
        EXPECT_EQ(l.trace(), (Ints{3, 2, 4, 5}));
        q.processEvents();
        q.postEvent(new TestEvent(l, 6), nullptr, nullptr);  // left for the destructor
        EXPECT_EQ(l.trace(), (Ints{3, 2, 4, 5, 10, 11}));
        EXPECT_EQ(l.told(), (Ints{1, 2, 1}));
    }
    EXPECT_TRUE(l.fates[kReplaced] == 2 && l.fates[kRefused] == 1 && l.handlers == 1);
    EXPECT_TRUE(l.destroyed() == l.created && Info::alive == 0);
}

TEST(EventQueueTest, FlushServicesMatchesOnlyWhenAskedAndAPassOutlivesAFailingEvent) {
    Ledger l;
    EventQueue q(nullptr, {});
    TestEvent* e[] = {new TestEvent(l, 1), new TestEvent(l, 2), new TestEvent(l, 1),
                      new TestEvent(l, 3), new TestEvent(l, 4)};
    e[2]->executable = false;
    e[3]->onExecute = []() -> bool { throw 3; };
    for (auto* event : e)
        q.postEvent(event, nullptr, nullptr);
    q.flushEvents(KeyMatch(1, kFlushed), true);  // runs the first 1 only
    q.flushEvents(KeyMatch(2, kFlushed), false);
    q.processEvents();
    EXPECT_EQ(l.trace(), (Ints{1, 3, 4}));
    EXPECT_TRUE(l.fates[kFlushed] == 2 && l.destroyed() == l.created);
}

TEST(EventThreadTest, RunsPostsInOrderWhileRunningAndAtStopDrainsThenObeysItsMode) {
    for (auto mode : {EventThread::DISCARD_PENDING_EVENTS, EventThread::PROCESS_PENDING_EVENTS}) {
        Ledger l;
        std::atomic<bool> release{false};
        auto* thread = new EventThread(mode);
        (new TestEvent(l, 0))->postEvent(*thread);  // refused: not started
        ASSERT_TRUE(thread->start());
        auto* blocker = new TestEvent(l, 1);
        blocker->onExecute = [&] {
            waitFor([&] { return release.load(); });
            (new TestEvent(l, 9))->postEvent(*thread);  // refused: stopping
            return true;
        };
        blocker->postEvent(*thread);
        ASSERT_TRUE(waitFor([&] { return l.executed == 1; }));
        for (int key : {2, 3})
            (new TestEvent(l, key))->postEvent(*thread);
        std::thread stopper([&] { thread->stop(); });
        ASSERT_TRUE(waitFor([&] { return !thread->isRunning(); }));
        release = true;
        stopper.join();
        EXPECT_EQ(l.trace(), (Ints{1, 2, 3}));  // what was queued ran before the stop was seen
        ASSERT_TRUE(thread->start());           // with a fresh, empty queue
        (new TestEvent(l, 4))->postEvent(*thread);
        delete thread;  // stops: 4 has run, or runs in the final pass, or is discarded
        EXPECT_EQ(l.fates[kRefused], 2);
        EXPECT_TRUE(mode == EventThread::DISCARD_PENDING_EVENTS || l.fates[kExecuted] == 4);
        EXPECT_EQ(l.destroyed(), l.created);
    }
}

TEST(EventManagerTest, IsOneInstanceThatServicesAtOnceOnlyOnItsCreatingThread) {
    Ledger l;
    EventManager* m = EventManager::createInstance(new Handler(l));
    Handler spare(l);
    EXPECT_TRUE(EventManager::createInstance(&spare) == m && EventManager::getInstance() == m);
    TestEvent* e[] = {new TestEvent(l, 1), new TestEvent(l, 2), new TestEvent(l, 3)};
    e[0]->onExecute = [] { return false; };
    e[1]->executable = false;
    e[2]->onExecute = []() -> bool { throw 3; };
    EXPECT_FALSE(e[0]->serviceEvent(true));  // ran at once: its own result
    EXPECT_TRUE(e[1]->serviceEvent(true));   // dropped
    EXPECT_THROW(e[2]->serviceEvent(true), int);
    std::thread([&] {
        EXPECT_FALSE(m->isProcessingThread());
        EXPECT_TRUE((new TestEvent(l, 4))->serviceEvent(true) &&
                    (new TestEvent(l, 5))->serviceEvent(true));
    }).join();
    EXPECT_TRUE((new TestEvent(l, 6))->serviceEvent(false));
    IEvent::flushEvents(KeyMatch(5, kFlushed), true);
    m->processEvents();
    (new TestEvent(l, 7))->serviceEvent(false);  // discarded with the manager
    EventManager::destroyInstance();
    EventManager::destroyInstance();
    EXPECT_EQ(EventManager::getInstance(), nullptr);
    EXPECT_EQ(l.trace(), (Ints{1, 3, 5, 4, 6}));
    EXPECT_EQ(l.told(), (Ints{1, 1}));  // once it filled from the other thread, once with 7
    EXPECT_TRUE(l.handlers == 1 && l.destroyed() == l.created);
}

// A loggable record whose event is gone: a log would hold its last reference.
static IEventInfo* orphan(Ledger& l, int value) {
    auto* info = new Info(true, value);
    delete new TestEvent(l, 0, info);
    return info;
}

TEST(EventInfoLogTest, KeepsTheNewestLoggableRecordsUpToItsLimitAndLocksForAnEnumerator) {
    Ledger l;
    EventInfoLog log(3);
    for (int v = 1; v <= 4; ++v)
        log.append(orphan(l, v));  // 1 is released when 4 arrives
    log.setMaxToLog(2);            // releases 2
    EXPECT_TRUE(log.isLogFull() && Info::alive == 2);
    log.setMaxToLog(EventInfoLog::NO_LIMIT);
    auto* e = log.getLockingEnumerator();
    std::thread other([&] { log.append(orphan(l, 5)); });
    // However long the other thread tries, it cannot append; this thread still may use the log.
    EXPECT_FALSE(waitFor([&] { return log.getNumberLogged() == 3; }, 0.05));
    Ints values;
    for (; !e->isAtEnd(); e->next())
        values.push_back(static_cast<Info*>(e->getCurrent())->value);
    EXPECT_EQ(values, (Ints{3, 4}));
    delete e;
    other.join();
    log.setMaxToLog(0);        // releases every record
    log.append(orphan(l, 6));  // released at once
    EXPECT_TRUE(log.getNumberLogged() == 0 && Info::alive == 0);
}

// Producers post, coalesce and flush into two event threads, which keep being
// started and stopped, and into the event manager, which its creating thread
// processes whenever told. Every event must meet exactly one fate, and every
// event and record must be destroyed exactly once.
TEST(EventStressTest, EveryEventMeetsExactlyOneFate) {
    EventInfoLog log;   // unlimited: records are released by clear() alone
    Ledger ledgers[3];  // the discarding thread, the processing thread, the manager
    for (Ledger& l : ledgers)
        l.log = &log;
    EventManager* manager = EventManager::createInstance(new Handler(ledgers[2]));
    const ElapsedTimer clock;
    const auto running = [&] { return clock.getElapsedTime() < 0.8; };
    const auto serve = [&] {  // a pass after every notification
        const bool told = ledgers[2].notified.exchange(0) > 0;
        if (told)
            manager->processEvents();
        return told;
    };
    {
        EventThread threads[2] = {EventThread(EventThread::DISCARD_PENDING_EVENTS),
                                  EventThread(EventThread::PROCESS_PENDING_EVENTS)};
        std::vector<std::thread> workers;
        for (unsigned w = 0; w < 5; ++w) {
            workers.emplace_back([&, w] {
                std::minstd_rand rng(w + 1);
                const SumMerge merge;
                for (; w < 2 && running(); threads[w].stop()) {
                    threads[w].start();
                    Thread::sleep(1e-6 * double(rng() % 5000));
                }
                for (; w >= 2 && running(); std::this_thread::yield()) {
                    const auto t = rng() % 3;
                    const KeyMatch match(int(rng() % 4), rng() % 8 ? kReplaced : kFlushed);
                    if (match.fate == kFlushed) {
                        t < 2 ? IEvent::flushEvents(threads[t], match)
                              : IEvent::flushEvents(match, rng() % 2 == 0);
                        continue;
                    }
                    Info* info = rng() % 2 ? new Info(rng() % 2 == 0) : nullptr;
                    auto* e = new TestEvent(ledgers[t], int(rng() % 4), info);
                    const KeyMatch* coalesce = rng() % 2 ? &match : nullptr;
                    t < 2
                        ? e->postOrCoalesceEvent(threads[t], coalesce, &merge)
                        : static_cast<void>(e->serviceOrCoalesceEvent(rng() % 2, coalesce, &merge));
                }
            });
        }
        while (running()) {
            serve();
            std::this_thread::yield();
        }
        for (auto& worker : workers)
            worker.join();
        while (serve()) {
        }
    }
    EventManager::destroyInstance();
    log.clear();
    for (const Ledger& l : ledgers) {
        EXPECT_TRUE(l.fates[kExecuted] > 0 && l.fates[kReplaced] > 0 && l.fates[kWrong] == 0);
        EXPECT_EQ(l.destroyed(), l.created);
    }
    EXPECT_EQ(Info::alive, 0);
    // The final pass leaves nothing behind, and every event queued was announced.
    EXPECT_EQ(ledgers[1].fates[kDiscarded] + ledgers[2].fates[kDiscarded], 0);
}
