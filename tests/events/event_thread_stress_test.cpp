// Producers post, coalesce and flush into two event threads, which keep being
// restarted and are finally destroyed while they run, and into an event
// manager that a new owner thread creates, processes and destroys in every
// round. Executed events post further events. Every event must meet exactly
// one fate, and every event and record must be destroyed once.
#include <gtest/gtest.h>

#include <chrono>
#include <random>
#include <thread>

#include "kestrel/threads.h"
#include "support/event_fakes.h"
#include "support/timing.h"

using namespace kestrel;
using namespace kestrel_test;
using Clock = std::chrono::steady_clock;

TEST(EventStressTest, EveryEventMeetsExactlyOneFateAcrossRestartsAndNewOwners) {
    EventInfoLog log;  // unlimited: records are released by clear() alone
    // Events of the processing thread, of the discarding one, and of the
    // manager in the rounds that drain it before destroying it and in the others.
    Ledger ledgers[4];
    for (Ledger& l : ledgers)
        l.log = &log;
    {
        // Destroyed in reverse order: the processing thread outlives the other.
        EventThread threads[2] = {EventThread(EventThread::PROCESS_PENDING_EVENTS),
                                  EventThread(EventThread::DISCARD_PENDING_EVENTS)};
        // Key 3 posts a follower to the processing thread.
        const auto make = [&](std::size_t target, int key) {
            auto* e = new TestEvent(ledgers[target], key, key % 2 ? nullptr : new Info(key == 0));
            if (key == 3) {
                e->onExecute = [&] {
                    (new TestEvent(ledgers[0], 6))->postEvent(threads[0]);
                    return true;
                };
            }
            return e;
        };
        const auto end = Clock::now() + std::chrono::milliseconds(1200);
        for (std::size_t round = 0; round < 3 || Clock::now() < end; ++round) {
            const std::size_t lm = 2 + round % 2;
            std::atomic<bool> producing{true};
            std::atomic<EventManager*> manager{nullptr};
            std::thread owner([&] {
                EventManager* m = EventManager::createInstance(new Handler(ledgers[lm]));
                manager = m;
                for (unsigned n = 0; producing; ++n) {
                    if (ledgers[lm].notified.exchange(0) > 0)
                        m->processEvents();
                    else if (n % 32 == 0)
                        make(lm, 3)->serviceEvent(true);  // executed at once
                    else
                        std::this_thread::yield();
                }
                while (lm == 2 && ledgers[lm].notified.exchange(0) > 0)
                    m->processEvents();  // drained; odd rounds destroy what is queued
                EventManager::destroyInstance();
            });
            ASSERT_TRUE(waitFor([&] { return manager.load() != nullptr; }));
            for (EventThread& thread : threads)
                thread.start();
            std::vector<std::thread> workers;
            for (unsigned w = 0; w < 4; ++w) {
                workers.emplace_back([&, w] {
                    std::minstd_rand rng(static_cast<unsigned>(round) * 8 + w + 1);
                    for (const auto roundEnd = Clock::now() + std::chrono::milliseconds(150);
                         Clock::now() < roundEnd;) {
                        const std::size_t t = rng() % 3;  // a thread, or the manager
                        if (w == 0) {                     // restarts the event threads
                            std::this_thread::sleep_for(std::chrono::microseconds(rng() % 3000));
                            threads[t % 2].stop();
                            threads[t % 2].start();
                        } else if (rng() % 8 == 0) {
                            const KeyMatch flush(static_cast<int>(rng() % 4), kFlushed);
                            t < 2 ? IEvent::flushEvents(threads[t], flush)
                                  : IEvent::flushEvents(flush, rng() % 2 == 0);
                        } else {
                            const KeyMatch match(static_cast<int>(rng() % 4));
                            const KeyMatch* coalesce = rng() % 2 == 0 ? &match : nullptr;
                            const SumMerge merge;
                            auto* e = make(t < 2 ? t : lm, static_cast<int>(rng() % 4));
                            t < 2 ? e->postOrCoalesceEvent(threads[t], coalesce, &merge)
                                  : static_cast<void>(e->serviceOrCoalesceEvent(rng() % 2 == 0,
                                                                                coalesce, &merge));
                        }
                    }
                });
            }
            for (auto& worker : workers)
                worker.join();
            producing = false;
            owner.join();
        }
        (new TestEvent(ledgers[0], 7))->postEvent(threads[0]);
    }
    log.clear();
    for (const Ledger& l : ledgers) {
        EXPECT_EQ(l.fates[kWrong], 0);
        EXPECT_EQ(l.destroyed(), l.created);
        EXPECT_GT(l.fates[kExecuted], 0);
        EXPECT_GT(l.fates[kReplaced] + l.fates[kFlushed], 0);
    }
    EXPECT_EQ(Info::alive, 0);
    // The final passes leave nothing behind, and every event queued was announced.
    EXPECT_EQ(ledgers[0].fates[kDiscarded] + ledgers[2].fates[kDiscarded], 0);
}

// A poster that posts the next event the moment the previous one has run
// hits the end of the pass that ran it, again and again: a post made there
// must still get its event processed (a pass that leaves its processing state
// only after letting go of the queue loses the wake-up now and then). The
// event thread has its own such test; this is a queue whose owner runs a
// message loop.
namespace {

// Wakes a processing thread of its own, as an owner's message loop would.
struct Wake : EventQueue::IEventQueueHandler {
    explicit Wake(Event& e) : event(e) {}
    void notifyEventsToProcess(std::size_t) const override { event.signal(); }
    Event& event;
};

}  // namespace

TEST(WakeUpStressTest, APostAtTheEndOfAPassIsNeverLeftUnprocessed) {
    Ledger l;
    Event wake;
    EventQueue queue(new Wake(wake), {});
    std::atomic<bool> quit{false};
    std::thread owner([&] {
        for (wake.wait(); !quit; wake.wait())
            queue.processEvents();
    });
    // One event at a time for half a second, each as soon as the one before
    // has run; each must run within 10 scheduling allowances.
    const auto end = Clock::now() + std::chrono::milliseconds(500);
    for (int i = 1; Clock::now() < end && l.executed == i - 1; ++i) {
        queue.postEvent(new TestEvent(l, i), nullptr, nullptr);
        const auto limit = Clock::now() + std::chrono::duration<double>(10 * kSchedulingAllowance);
        while (l.executed < i && Clock::now() < limit)
            std::this_thread::yield();
        EXPECT_EQ(l.executed, i);
    }
    quit = true;
    wake.signal();
    owner.join();
}
