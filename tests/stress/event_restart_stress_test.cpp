// Producers against an event manager that a new owner thread creates,
// processes and destroys in every round, and against an event thread that
// keeps being restarted and is finally destroyed while it runs. Executed
// events post further events. Every event meets exactly one fate.
#include <gtest/gtest.h>

#include <chrono>
#include <random>
#include <thread>

#include "support/event_fakes.h"
#include "support/timing.h"

using namespace kestrel;
using namespace kestrel_test;
using Clock = std::chrono::steady_clock;

TEST(EventRestartStressTest, EveryEventIsAccountedForAcrossRestarts) {
    Ledger lm, lt;  // events of the manager, of the event thread
    // A plain pointer: events that the destructor's final pass executes still reach it.
    auto* thread = new EventThread(EventThread::PROCESS_PENDING_EVENTS);
    // Key 3 posts a follower: from the manager to the thread, on the thread to itself.
    const auto make = [&](Ledger& l, int key) {
        auto* e = new TestEvent(l, key, key % 2 == 0 ? new Info(false) : nullptr);
        if (key == 3) {
            e->onExecute = [&thread, &lt] {
                (new TestEvent(lt, 6))->postEvent(*thread);
                return true;
            };
        }
        return e;
    };
    const auto end = Clock::now() + std::chrono::milliseconds(1200);
    for (int round = 0; round < 3 || Clock::now() < end; ++round) {
        std::atomic<bool> producing{true};
        std::atomic<EventManager*> manager{nullptr};
        std::thread owner([&, round] {
            EventManager* m = EventManager::createInstance(new Handler(lm));
            manager = m;
            for (unsigned n = 0; producing; ++n) {
                if (lm.notified.exchange(false)) {
                    m->processEvents();
                } else if (n % 32 == 0) {
                    make(lm, 3)->serviceEvent(true);  // executed at once
                } else {
                    std::this_thread::yield();
                }
            }
            while (round % 2 == 0 && lm.notified.exchange(false)) {
                m->processEvents();  // drained; odd rounds destroy what is queued
            }
            EventManager::destroyInstance();
        });
        ASSERT_TRUE(waitFor([&] { return manager.load() != nullptr; }));
        thread->start();
        std::vector<std::thread> workers;
        for (unsigned w = 0; w < 4; ++w) {
            workers.emplace_back([&, w] {
                std::minstd_rand rng(static_cast<unsigned>(round) * 8 + w + 1);
                const auto roundEnd = Clock::now() + std::chrono::milliseconds(150);
                while (Clock::now() < roundEnd) {
                    if (w == 0) {  // restarts the event thread
                        std::this_thread::sleep_for(std::chrono::microseconds(rng() % 3000));
                        thread->stop();
                        thread->start();
                        continue;
                    }
                    const bool toThread = rng() % 2 == 0;
                    const KeyMatch match(static_cast<int>(rng() % 4));
                    if (rng() % 8 == 0) {
                        const KeyMatch flush(static_cast<int>(rng() % 4), kFlushed);
                        toThread ? IEvent::flushEvents(*thread, flush)
                                 : IEvent::flushEvents(flush, rng() % 2 == 0);
                        continue;
                    }
                    Ledger& l = toThread ? lt : lm;
                    const SumMerge merge;
                    auto* e = make(l, static_cast<int>(rng() % 4));
                    const KeyMatch* coalesce = rng() % 2 == 0 ? &match : nullptr;
                    toThread
                        ? e->postOrCoalesceEvent(*thread, coalesce, &merge)
                        : static_cast<void>(e->serviceOrCoalesceEvent(false, coalesce, &merge));
                }
            });
        }
        for (auto& worker : workers) {
            worker.join();
        }
        producing = false;
        owner.join();
    }
    (new TestEvent(lt, 7))->postEvent(*thread);
    delete thread;  // running: stops with a final pass

    for (const Ledger* l : {&lm, &lt}) {
        EXPECT_EQ(l->fates[kWrong], 0);
        EXPECT_EQ(l->destroyed(), l->created);
        EXPECT_GT(l->fates[kExecuted], 0);
        EXPECT_GT(l->fates[kReplaced] + l->fates[kFlushed], 0);
    }
    EXPECT_EQ(Info::alive, 0);
    EXPECT_EQ(lt.fates[kDiscarded], 0);  // the final passes leave nothing behind
}
