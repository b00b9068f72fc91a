// Events, information records, function objects and a queue handler that
// count what happens to them, for the events tests.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <vector>

#include "kestrel/events.h"

namespace kestrel_test {

struct EventCounters {
    std::atomic<int> infosDestroyed{0};
    std::atomic<int> eventsDestroyed{0};
    std::atomic<int> executed{0};
};

class CountingInfo : public kestrel::IEventInfo {
  public:
    CountingInfo(EventCounters& counters, bool loggable, int initial = 0, const char* name = "test")
        : IEventInfo(name, loggable), value(initial), _counters(counters) {}
    int value;

  protected:
    ~CountingInfo() override { ++_counters.infosDestroyed; }

  private:
    EventCounters& _counters;
};

// Records its id in a shared trace when executed; onExecute runs inside
// execute() and may throw.
class RecordingEvent : public kestrel::IEvent {
  public:
    RecordingEvent(EventCounters& counters, int eventId, std::vector<int>* trace = nullptr,
                   kestrel::IEventInfo* info = nullptr)
        : IEvent(info), id(eventId), _counters(counters), _trace(trace) {}
    ~RecordingEvent() override { ++_counters.eventsDestroyed; }
    bool isExecutable() const override { return executable; }
    using IEvent::postOrCoalesceEvent;
    using IEvent::serviceOrCoalesceEvent;

    const int id;
    bool executable = true;
    bool result = true;
    std::function<void()> onExecute;

  protected:
    bool execute() override {
        ++_counters.executed;
        if (_trace != nullptr) {
            _trace->push_back(id);
        }
        if (onExecute) {
            onExecute();
        }
        return result;
    }

  private:
    EventCounters& _counters;
    std::vector<int>* _trace;
};

// Accepts the events whose id is id (any id when id < 0); throws on its
// throwOnCall-th call when that is not 0.
class MatchId : public kestrel::IMatchEventFcn {
  public:
    explicit MatchId(int id, int throwOnCall = 0) : _id(id), _throwOnCall(throwOnCall) {}
    bool operator()(kestrel::IEvent* event) const override {
        if (++_calls == _throwOnCall) {
            throw 42;
        }
        return _id < 0 || static_cast<RecordingEvent*>(event)->id == _id;
    }

  private:
    int _id;
    int _throwOnCall;
    mutable int _calls = 0;
};

// Adds the queued record's value to the new one's.
class SumMerge : public kestrel::IMergeEventInfoFcn {
  public:
    explicit SumMerge(bool throwing = false) : _throwing(throwing) {}
    void operator()(kestrel::IEventInfo* newInfo, kestrel::IEventInfo* queuedInfo) const override {
        ++calls;
        if (_throwing) {
            throw 42;
        }
        static_cast<CountingInfo*>(newInfo)->value += static_cast<CountingInfo*>(queuedInfo)->value;
    }
    mutable int calls = 0;

  private:
    bool _throwing;
};

// Records the counts it is told; counts its own destruction.
class RecordingHandler : public kestrel::EventQueue::IEventQueueHandler {
  public:
    RecordingHandler(std::vector<std::size_t>& calls, std::atomic<int>& destroyed)
        : _calls(calls), _destroyed(destroyed) {}
    ~RecordingHandler() override { ++_destroyed; }
    void notifyEventsToProcess(std::size_t eventCount) const override {
        std::lock_guard<std::mutex> lock(_mutex);
        _calls.push_back(eventCount);
    }

  private:
    mutable std::mutex _mutex;
    std::vector<std::size_t>& _calls;
    std::atomic<int>& _destroyed;
};

}  // namespace kestrel_test
