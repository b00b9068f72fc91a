// Events, records, function objects and a queue handler for the events tests.
// Every event tells its ledger, when destroyed, which fate it met.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <numeric>
#include <thread>
#include <utility>
#include <vector>

#include "kestrel/events.h"

namespace kestrel_test {

using Ints = std::vector<int>;

// kWrong: executed twice, or executed although replaced.
enum Fate { kExecuted, kReplaced, kFlushed, kRefused, kDiscarded, kWrong, kFates };

// Counts created events and their fates, and keeps the keys of the events
// executed and the counts that the handler was told, in order (the latest 64).
struct Ledger {
    std::atomic<int> created{0}, fates[kFates]{}, handlers{0}, executed{0}, keys[64]{};
    std::atomic<int> notified{0}, counts[64]{};
    kestrel::EventInfoLog* log = nullptr;  // where events leave their records, if anywhere
    int destroyed() const { return std::accumulate(std::begin(fates), std::end(fates), 0); }
    Ints trace() const { return Ints(keys, keys + executed); }
    Ints told() const { return Ints(counts, counts + notified); }
};

struct Info : kestrel::IEventInfo {
    static inline std::atomic<int> alive{0};  // records not yet destroyed
    explicit Info(bool loggable, int v = 1) : IEventInfo("test", loggable), value(v) { ++alive; }
    ~Info() override { --alive; }
    int value;
};

struct TestEvent : kestrel::IEvent {
    TestEvent(Ledger& l, int k, kestrel::IEventInfo* i = nullptr) : IEvent(i), ledger(l), key(k) {
        ++ledger.created;
    }
    ~TestEvent() override {  // an event that no one marked was destroyed by its post, or dropped
        const bool here = std::this_thread::get_id() == creator;
        ++ledger.fates[mark != kDiscarded ? mark : here ? kRefused : kDiscarded];
        if (ledger.log != nullptr)
            ledger.log->append(getEventInfo());
    }
    bool isExecutable() const override { return executable; }
    bool execute() override {
        mark = mark == kDiscarded || mark == kFlushed ? kExecuted : kWrong;
        ledger.keys[ledger.executed++ % 64] = key;
        return onExecute ? onExecute() : true;
    }
    using IEvent::postOrCoalesceEvent, IEvent::serviceOrCoalesceEvent;

    Ledger& ledger;
    const int key;
    const std::thread::id creator = std::this_thread::get_id();
    bool executable = true;
    Fate mark = kDiscarded;  // set by the match that picks it, under the queue's lock, or here
    std::function<bool()> onExecute;  // execute()'s result; may throw
};

// Accepts the events with the key (any key when it is negative) and marks them,
// after running its hook (which may throw or post) on every call.
struct KeyMatch : kestrel::IMatchEventFcn {
    explicit KeyMatch(
        int k, Fate f = kReplaced, std::function<void()> h = [] {})
        : key(k), fate(f), hook(std::move(h)) {}
    bool operator()(kestrel::IEvent* event) const override {
        hook();
        auto* e = static_cast<TestEvent*>(event);
        e->mark = key < 0 || e->key == key ? fate : e->mark;
        return e->mark == fate;  // queued events are unmarked
    }
    const int key;
    const Fate fate;
    const std::function<void()> hook;
};

// Adds the queued record's value to the new one's (and fails on a missing one).
struct SumMerge : kestrel::IMergeEventInfoFcn {
    void operator()(kestrel::IEventInfo* newInfo, kestrel::IEventInfo* queuedInfo) const override {
        static_cast<Info*>(newInfo)->value += static_cast<Info*>(queuedInfo)->value;
    }
};

// A match object that asks f, and a merge object that runs f.
struct Match : kestrel::IMatchEventFcn {
    explicit Match(std::function<bool(TestEvent&)> f) : accept(std::move(f)) {}
    bool operator()(kestrel::IEvent* queued) const override {
        return accept(*static_cast<TestEvent*>(queued));
    }
    std::function<bool(TestEvent&)> accept;
};
struct Merge : kestrel::IMergeEventInfoFcn {
    explicit Merge(std::function<void()> f) : run(std::move(f)) {}
    void operator()(kestrel::IEventInfo*, kestrel::IEventInfo*) const override { run(); }
    std::function<void()> run;
};

// An event whose destructor runs a hook first.
struct Hooked : TestEvent {
    Hooked(Ledger& l, int k, std::function<void()> h)
        : TestEvent(l, k, new Info(false)), hook(std::move(h)) {}
    ~Hooked() override { hook(); }
    std::function<void()> hook;
};

struct Handler : kestrel::EventQueue::IEventQueueHandler {
    explicit Handler(Ledger& l) : ledger(l) {}
    ~Handler() override { ++ledger.handlers; }
    void notifyEventsToProcess(std::size_t count) const override {
        ledger.counts[ledger.notified++ % 64] = static_cast<int>(count);
        onNotify();
    }
    Ledger& ledger;
    std::function<void()> onNotify = [] {};  // runs under the queue's lock
};

// posted, executed, coalesced, flushed and discarded.
using Counts = std::vector<std::uint64_t>;
inline Counts counts(const kestrel::EventQueue::Counters& c) {
    return {c.posted, c.executed, c.coalesced, c.flushed, c.discarded};
}

}  // namespace kestrel_test
