// Producers post, coalesce and flush into two event threads, which keep being
// started and stopped, and into the event manager, which its creating thread
// processes whenever told. Every event must meet exactly one fate, and every
// event and record must be destroyed exactly once.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <random>
#include <thread>

#include "support/event_fakes.h"

using namespace kestrel;
using namespace kestrel_test;

TEST(EventStressTest, EveryEventMeetsExactlyOneFate) {
    Ledger ledgers[3];  // the discarding thread, the processing thread, the manager
    EventInfoLog log;   // unlimited: records are released by clear() alone
    EventManager* manager = EventManager::createInstance(new Handler(ledgers[2]));
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(800);
    const auto running = [deadline] { return std::chrono::steady_clock::now() < deadline; };
    {
        EventThread threads[2] = {EventThread(EventThread::DISCARD_PENDING_EVENTS),
                                  EventThread(EventThread::PROCESS_PENDING_EVENTS)};
        std::atomic<int> producing{3};
        std::vector<std::thread> workers;
        for (unsigned w = 0; w < 5; ++w) {
            workers.emplace_back([&, w] {
                std::minstd_rand rng(w + 1);
                while (w < 2 && running()) {
                    threads[w].start();
                    std::this_thread::sleep_for(std::chrono::microseconds(rng() % 5000));
                    threads[w].stop();
                }
                while (w >= 2 && running()) {
                    const auto t = static_cast<unsigned>(rng() % 3);
                    const KeyMatch match(static_cast<int>(rng() % 4));
                    if (rng() % 8 == 0) {
                        const KeyMatch flush(static_cast<int>(rng() % 4), true);
                        t < 2 ? IEvent::flushEvents(threads[t], flush)
                              : IEvent::flushEvents(flush, rng() % 2 == 0);
                        continue;
                    }
                    Ledger& l = ledgers[t];
                    const SumMerge merge(l);
                    auto* info = rng() % 2 == 0 ? new Info(l, rng() % 2 == 0) : nullptr;
                    auto* e = new TestEvent(l, static_cast<int>(rng() % 4), info, &log);
                    const KeyMatch* coalesce = rng() % 2 == 0 ? &match : nullptr;
                    t < 2
                        ? e->postOrCoalesceEvent(threads[t], coalesce, &merge)
                        : static_cast<void>(e->serviceOrCoalesceEvent(rng() % 2, coalesce, &merge));
                    std::this_thread::yield();
                }
                producing -= w >= 2 ? 1 : 0;
            });
        }
        for (unsigned n = 0; producing > 0; ++n) {
            if (ledgers[2].notified.exchange(false)) {
                manager->processEvents();
            } else if (n % 64 == 0) {
                (new TestEvent(ledgers[2], 9, nullptr, &log))->serviceEvent(true);
            } else {
                std::this_thread::yield();
            }
        }
        for (auto& worker : workers) {
            worker.join();
        }
        while (ledgers[2].notified.exchange(false)) {
            manager->processEvents();
        }
    }
    EventManager::destroyInstance();
    log.clear();

    for (const Ledger& l : ledgers) {
        std::printf(
            "created %d: executed %d, replaced %d (merged %d), flushed %d, refused %d, "
            "discarded %d\n",
            l.created.load(), l.executed.load(), l.replaced.load(), l.merges.load(),
            l.flushed.load(), l.refused.load(), l.discarded.load());
        EXPECT_EQ(l.errors, 0);
        EXPECT_EQ(l.destroyed, l.created);
        EXPECT_EQ(l.executed + l.replaced + l.flushed + l.refused + l.discarded, l.created);
        EXPECT_EQ(l.infosDestroyed, l.infos);
        EXPECT_GT(l.executed, 0);
        EXPECT_GT(l.replaced, 0);
    }
    EXPECT_EQ(ledgers[1].discarded, 0);  // the final pass leaves nothing behind
    EXPECT_EQ(ledgers[2].discarded, 0);  // every queued event was announced
}
