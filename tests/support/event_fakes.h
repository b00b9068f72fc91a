// Events, records, function objects and a queue handler for the events tests.
// Every event tells its ledger, when destroyed, which fate it met.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "kestrel/events.h"

namespace kestrel_test {

struct Ledger {
    std::atomic<int> created{0}, destroyed{0}, errors{0}, executed{0}, replaced{0}, flushed{0},
        refused{0}, discarded{0}, infos{0}, infosDestroyed{0}, merges{0}, handlersDestroyed{0};
    std::atomic<bool> notified{false};
    std::mutex mutex;
    std::vector<int> trace;           // keys in execution order; guarded by mutex
    std::vector<std::size_t> counts;  // handler notifications; guarded by mutex
};

class Info : public kestrel::IEventInfo {
  public:
    Info(Ledger& ledger, bool loggable, int initial = 1)
        : IEventInfo("test", loggable), value(initial), _ledger(ledger) {
        ++_ledger.infos;
    }
    int value;

  protected:
    ~Info() override { ++_ledger.infosDestroyed; }

  private:
    Ledger& _ledger;
};

class TestEvent : public kestrel::IEvent {
  public:
    TestEvent(Ledger& ledger, int eventKey, kestrel::IEventInfo* info = nullptr,
              kestrel::EventInfoLog* log = nullptr)
        : IEvent(info), key(eventKey), _ledger(ledger), _log(log) {
        ++_ledger.created;
    }
    ~TestEvent() override {
        const int runs = executions;
        _ledger.errors += runs > 1 || (runs == 1 && replaced) ? 1 : 0;
        const bool here = std::this_thread::get_id() == _creator;  // destroyed by the post itself
        ++(runs == 1  ? _ledger.executed
           : replaced ? _ledger.replaced
           : flushed  ? _ledger.flushed
           : here     ? _ledger.refused
                      : _ledger.discarded);
        if (_log != nullptr) {
            _log->append(getEventInfo());
        }
        ++_ledger.destroyed;
    }
    bool isExecutable() const override { return executable; }
    using IEvent::postOrCoalesceEvent;
    using IEvent::serviceOrCoalesceEvent;

    const int key;
    bool executable = true;
    bool replaced = false;  // set by the match that picks it, under the queue's lock
    bool flushed = false;
    std::atomic<int> executions{0};
    std::function<bool()> onExecute;  // execute()'s result; may throw

  protected:
    bool execute() override {
        ++executions;
        std::unique_lock<std::mutex> lock(_ledger.mutex);
        _ledger.trace.push_back(key);
        lock.unlock();
        return onExecute ? onExecute() : true;
    }

  private:
    Ledger& _ledger;
    kestrel::EventInfoLog* _log;
    const std::thread::id _creator = std::this_thread::get_id();
};

// Accepts the events with the key (any key when key < 0) and marks them
// replaced or flushed; throws on its throwOnCall-th call.
class KeyMatch : public kestrel::IMatchEventFcn {
  public:
    explicit KeyMatch(int key, bool flush = false, int throwOnCall = 0)
        : _key(key), _flush(flush), _throwOnCall(throwOnCall) {}
    bool operator()(kestrel::IEvent* event) const override {
        auto* e = static_cast<TestEvent*>(event);
        if (++_calls == _throwOnCall) {
            throw 42;
        }
        if (_key >= 0 && e->key != _key) {
            return false;
        }
        (_flush ? e->flushed : e->replaced) = true;
        return true;
    }

  private:
    int _key;
    bool _flush;
    int _throwOnCall;
    mutable int _calls = 0;
};

// Adds the queued record's value to the new one's.
class SumMerge : public kestrel::IMergeEventInfoFcn {
  public:
    explicit SumMerge(Ledger& ledger, bool throwing = false)
        : _ledger(ledger), _throwing(throwing) {}
    void operator()(kestrel::IEventInfo* newInfo, kestrel::IEventInfo* queuedInfo) const override {
        ++_ledger.merges;
        if (_throwing) {
            throw 42;
        }
        static_cast<Info*>(newInfo)->value += static_cast<Info*>(queuedInfo)->value;
    }

  private:
    Ledger& _ledger;
    bool _throwing;
};

class Handler : public kestrel::EventQueue::IEventQueueHandler {
  public:
    explicit Handler(Ledger& ledger) : _ledger(ledger) {}
    ~Handler() override { ++_ledger.handlersDestroyed; }
    void notifyEventsToProcess(std::size_t eventCount) const override {
        std::lock_guard<std::mutex> lock(_ledger.mutex);
        _ledger.counts.push_back(eventCount);
        _ledger.notified = true;
    }

  private:
    Ledger& _ledger;
};

}  // namespace kestrel_test
