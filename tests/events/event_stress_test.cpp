// Several threads post, coalesce and flush into two event threads, which keep
// being started and stopped, and into the event manager, which its creating
// thread processes whenever its handler asks. Every event must meet exactly
// one fate and every event and record must be destroyed exactly once.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <random>
#include <thread>
#include <vector>

#include "kestrel/events.h"

using namespace kestrel;

namespace {

struct Ledger {
    std::atomic<int> created{0}, destroyed{0}, errors{0};
    std::atomic<int> executed{0}, replaced{0}, flushed{0}, refused{0}, discarded{0};
    std::atomic<int> infosCreated{0}, infosDestroyed{0}, merges{0};
};

class StressInfo : public IEventInfo {
  public:
    StressInfo(Ledger& ledger, bool loggable) : IEventInfo("stress", loggable), _ledger(ledger) {
        ++_ledger.infosCreated;
    }
    int weight = 1;

  protected:
    ~StressInfo() override { ++_ledger.infosDestroyed; }

  private:
    Ledger& _ledger;
};

class StressEvent : public IEvent {
  public:
    // infoKind: 0 no record, 1 a plain record, 2 a loggable one.
    StressEvent(Ledger& ledger, EventInfoLog& log, int eventKey, int infoKind)
        : IEvent(infoKind == 0 ? nullptr : new StressInfo(ledger, infoKind == 2)),
          key(eventKey),
          _ledger(ledger),
          _log(log) {
        ++_ledger.created;
    }
    ~StressEvent() override {
        const int runs = executions;
        if (runs > 1 || (runs == 1 && replaced)) {
            ++_ledger.errors;
        }
        if (runs == 1) {
            ++_ledger.executed;
        } else if (replaced) {
            ++_ledger.replaced;
        } else if (flushed) {
            ++_ledger.flushed;
        } else if (std::this_thread::get_id() == _creator) {
            ++_ledger.refused;  // destroyed by the post itself
        } else {
            ++_ledger.discarded;  // destroyed with a queue
        }
        _log.append(getEventInfo());  // the log keeps loggable records only
        ++_ledger.destroyed;
    }
    using IEvent::postOrCoalesceEvent;
    using IEvent::serviceOrCoalesceEvent;

    const int key;
    bool replaced = false;  // set by the match that picks it, under the queue's lock
    bool flushed = false;   // likewise
    std::atomic<int> executions{0};

  protected:
    bool execute() override {
        ++executions;
        return true;
    }

  private:
    Ledger& _ledger;
    EventInfoLog& _log;
    const std::thread::id _creator = std::this_thread::get_id();
};

class KeyMatch : public IMatchEventFcn {
  public:
    KeyMatch(int key, bool flush) : _key(key), _flush(flush) {}
    bool operator()(IEvent* event) const override {
        auto* stress = static_cast<StressEvent*>(event);
        if (stress->key != _key) {
            return false;
        }
        (_flush ? stress->flushed : stress->replaced) = true;
        return true;
    }

  private:
    int _key;
    bool _flush;
};

class WeightMerge : public IMergeEventInfoFcn {
  public:
    explicit WeightMerge(Ledger& ledger) : _ledger(ledger) {}
    void operator()(IEventInfo* newInfo, IEventInfo* queuedInfo) const override {
        static_cast<StressInfo*>(newInfo)->weight += static_cast<StressInfo*>(queuedInfo)->weight;
        ++_ledger.merges;
    }

  private:
    Ledger& _ledger;
};

class FlagHandler : public EventQueue::IEventQueueHandler {
  public:
    explicit FlagHandler(std::atomic<bool>& flag) : _flag(flag) {}
    void notifyEventsToProcess(std::size_t) const override { _flag = true; }

  private:
    std::atomic<bool>& _flag;
};

constexpr auto kProducing = std::chrono::milliseconds(800);

}  // namespace

TEST(EventStressTest, EveryEventMeetsExactlyOneFate) {
    Ledger ledgers[3];  // discarding thread, processing thread, event manager
    EventInfoLog log;
    std::atomic<bool> notified{false};
    EventManager* manager = EventManager::createInstance(new FlagHandler(notified));
    {
        EventThread threads[2] = {EventThread(EventThread::DISCARD_PENDING_EVENTS),
                                  EventThread(EventThread::PROCESS_PENDING_EVENTS)};
        const auto deadline = std::chrono::steady_clock::now() + kProducing;
        std::vector<std::thread> workers;
        for (int t = 0; t < 2; ++t) {
            workers.emplace_back([&, t] {
                std::minstd_rand rng(static_cast<unsigned>(t) + 1);
                while (std::chrono::steady_clock::now() < deadline) {
                    threads[t].start();
                    std::this_thread::sleep_for(std::chrono::microseconds(rng() % 5000));
                    threads[t].stop();
                }
            });
        }
        std::atomic<int> producing{3};
        for (unsigned p = 0; p < 3; ++p) {
            workers.emplace_back([&, p] {
                std::minstd_rand rng(p + 10);
                for (unsigned n = 1; std::chrono::steady_clock::now() < deadline; ++n) {
                    const auto target = static_cast<unsigned>(rng() % 3);
                    const int key = static_cast<int>(rng() % 4);
                    if (rng() % 8 == 0) {
                        const KeyMatch flush(key, true);
                        if (target < 2) {
                            IEvent::flushEvents(threads[target], flush);
                        } else {
                            IEvent::flushEvents(flush, rng() % 2 == 0);
                        }
                        continue;
                    }
                    auto* event = new StressEvent(ledgers[target], log, key, int(rng() % 3));
                    const KeyMatch match(key, false);
                    const WeightMerge merge(ledgers[target]);
                    const bool coalesce = rng() % 2 == 0;
                    if (target < 2 && coalesce) {
                        event->postOrCoalesceEvent(threads[target], &match, &merge);
                    } else if (target < 2) {
                        event->postEvent(threads[target]);
                    } else if (coalesce) {
                        event->serviceOrCoalesceEvent(rng() % 2 == 0, &match, &merge);
                    } else {
                        event->serviceEvent(true);
                    }
                    if (n % 16 == 0) {
                        std::this_thread::yield();
                    }
                }
                --producing;
            });
        }
        // This thread created the manager: it processes whenever told, and
        // now and then services an event directly.
        std::minstd_rand rng(99);
        while (producing > 0) {
            if (notified.exchange(false)) {
                manager->processEvents();
            } else if (rng() % 64 == 0) {
                (new StressEvent(ledgers[2], log, 0, int(rng() % 3)))->serviceEvent(true);
            } else {
                std::this_thread::yield();
            }
        }
        for (auto& worker : workers) {
            worker.join();
        }
        while (notified.exchange(false)) {
            manager->processEvents();
        }
    }
    EventManager::destroyInstance();
    log.clear();

    int total = 0;
    for (const Ledger& l : ledgers) {
        SCOPED_TRACE(&l - ledgers);
        EXPECT_EQ(l.errors, 0);
        EXPECT_EQ(l.destroyed, l.created);
        EXPECT_EQ(l.executed + l.replaced + l.flushed + l.refused + l.discarded, l.created);
        EXPECT_EQ(l.infosDestroyed, l.infosCreated);
        EXPECT_GT(l.executed, 0);
        std::printf(
            "created %d executed %d replaced %d (merged %d) flushed %d refused %d "
            "discarded %d\n",
            l.created.load(), l.executed.load(), l.replaced.load(), l.merges.load(),
            l.flushed.load(), l.refused.load(), l.discarded.load());
        total += l.replaced + l.flushed;
    }
    EXPECT_GT(total, 0);
    EXPECT_EQ(ledgers[1].discarded, 0);  // the final pass leaves nothing behind
    EXPECT_EQ(ledgers[2].discarded, 0);  // every queued event was announced
}
