#include <algorithm>
#include <cstddef>
#include <exception>
#include <limits>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "core/thread_end.h"
#include "events/opaque_mutex.h"
#include "kestrel/events.h"

namespace kestrel {

// ---- the ring of queued events ----

namespace {

// The array of a queue that has emptied is given back above this many
// entries (512 KiB), so that a rare long burst does not pin its memory for
// the queue's life, while the usual bursts reuse it.
constexpr std::size_t kKeptCapacity = 65536;
constexpr std::size_t kFirstCapacity = 16;

}  // namespace

EventQueue::EventList::~EventList() {
    delete[] _slots;
}

inline void EventQueue::EventList::push_back(IEvent* event) {
    if (_slots == nullptr || _size > _mask) {
        grow();
    }
    _slots[(_head + _size) & _mask] = event;
    ++_size;
}

inline IEvent* EventQueue::EventList::pop_front() {
    IEvent* const event = _slots[_head];
    ++_moves;
    _head = (_head + 1) & _mask;
    if (--_size == 0) {
        _head = 0;
        if (_mask >= kKeptCapacity) {
            delete[] _slots;
            _slots = nullptr;
            _mask = 0;
        }
    }
    return event;
}

inline std::size_t EventQueue::EventList::find(const IEvent* event) const {
    for (std::size_t at = 0; at < _size; ++at) {
        if ((*this)[at] == event) {
            return at;
        }
    }
    return _size;
}

template <typename Predicate>
void EventQueue::EventList::removeIf(Predicate remove) {
    ++_moves;
    std::size_t kept = 0;
    for (std::size_t at = 0; at < _size; ++at) {
        IEvent* const event = (*this)[at];
        if (!remove(event)) {
            (*this)[kept++] = event;
        }
    }
    _size = kept;
}

void EventQueue::EventList::grow() {
    const std::size_t capacity = _slots == nullptr ? kFirstCapacity : (_mask + 1) * 2;
    IEvent** const slots = new IEvent*[capacity];
    for (std::size_t at = 0; at < _size; ++at) {
        slots[at] = (*this)[at];
    }
    delete[] _slots;
    _slots = slots;
    _mask = capacity - 1;
    _head = 0;
    ++_moves;  // a walk's view of the array is gone
}

namespace {

// Destroys, unexecuted, the events still in a list when it goes out of scope
// (the events a flush moved aside, when a match object threw or the serving
// was cut short), counting them in discarded.
class EventListGuard {
  public:
    EventListGuard(std::vector<IEvent*>& events, std::uint64_t& discarded)
        : _events(events), _discarded(discarded) {}
    EventListGuard(const EventListGuard&) = delete;
    EventListGuard& operator=(const EventListGuard&) = delete;
    ~EventListGuard() {
        for (std::size_t i = _next; i < _events.size(); ++i) {
            ++_discarded;
            std::unique_ptr<IEvent> event(_events[i]);
        }
    }
    // Hands out the events in order; those not yet handed out are the
    // guard's to destroy.
    IEvent* take() { return _next < _events.size() ? _events[_next++] : nullptr; }

  private:
    std::vector<IEvent*>& _events;
    std::uint64_t& _discarded;
    std::size_t _next = 0;
};

// Finds event again after caller code ran under the queue's lock. The lock is
// recursive, so a match or merge object, a handler or a destructor may have
// posted to, flushed or processed this queue meanwhile on this thread: at
// then becomes the event's present index. False when the event has left the
// queue; at then indexes the event that took its place (or the end).
template <typename List>
bool findAgain(const List& events, const IEvent* event, std::size_t& at) {
    if (at < events.size() && events[at] == event) {
        return true;
    }
    const std::size_t found = events.find(event);
    if (found == events.size()) {
        at = std::min(at, events.size());
        return false;
    }
    at = found;
    return true;
}

// Asks match about each event queued when the walk begins, head first, and
// calls onAccepted(at) for each accepted event that is still queued (at: its
// present index), until onAccepted returns true. Events that match itself
// posts meanwhile are not asked about: a match that posts on every call would
// otherwise never finish.
//
// The walk goes over a view of the array that nothing has moved since it was
// taken, slot after slot through the (at most two) runs of the array that
// hold the positions to ask about, and compares the count of moves once after
// each call. Should match have re-entered the queue and moved events, the
// walk finds the event it asked about again and takes a new view.
template <typename List, typename OnAccepted>
void askQueued(const List& events, const IMatchEventFcn& match, OnAccepted onAccepted) {
    std::size_t toAsk = events.size();
    std::size_t at = 0;
    while (toAsk > 0 && at < events.size()) {
        const std::size_t moves = events.moves();
        const typename List::View view = events.view();
        const auto positionOf = [&view](IEvent* const* slot) {
            return (static_cast<std::size_t>(slot - view.slots) - view.head) & view.mask;
        };
        // Appends (which alone leave the count) only lengthen the list beyond
        // the events to ask about.
        const std::size_t count = std::min(toAsk, events.size() - at);
        const std::size_t first = (view.head + at) & view.mask;
        const std::size_t firstRun = std::min(count, view.mask + 1 - first);
        std::size_t secondRun = count - firstRun;
        IEvent* const* slot = view.slots + first;
        IEvent* const* end = slot + firstRun;
        IEvent* asked = nullptr;
        bool accepted = false;
        for (;;) {
            for (; slot != end; ++slot) {
                asked = *slot;
                accepted = match(asked);
                if (events.moves() != moves) {
                    break;
                }
                if (accepted && onAccepted(positionOf(slot))) {
                    return;
                }
            }
            if (slot != end || secondRun == 0) {
                break;
            }
            slot = view.slots;
            end = slot + secondRun;
            secondRun = 0;
        }
        if (slot == end) {
            return;  // every event was asked about
        }
        // match moved events: the view is stale (the array may even be gone).
        const std::size_t position = positionOf(slot);
        toAsk -= position - at + 1;
        at = position;
        if (findAgain(events, asked, at)) {
            if (accepted && onAccepted(at)) {
                return;
            }
            ++at;
        }
    }
}

// Unlinks from events the events in accepted, which a flush's match objects
// chose in queue order, and leaves in accepted those it unlinked, in queue
// order. Those the match objects themselves removed meanwhile (by
// re-entering the queue) are no longer the flush's to destroy.
template <typename List>
void unlinkAccepted(List& events, std::vector<IEvent*>& accepted) {
    std::size_t next = 0;
    for (std::size_t at = 0; at < events.size(); ++at) {
        if (next < accepted.size() && events[at] == accepted[next]) {
            ++next;
        }
    }
    if (next == accepted.size()) {  // the usual case: all still queued, in order
        next = 0;
        events.removeIf([&](const IEvent* event) {
            const bool hit = next < accepted.size() && event == accepted[next];
            next += hit ? 1 : 0;
            return hit;
        });
        return;
    }
    // Sorted for the look-ups, then refilled (without growing) with the
    // events that are still queued, each once, in queue order.
    std::sort(accepted.begin(), accepted.end());
    accepted.erase(std::unique(accepted.begin(), accepted.end()), accepted.end());
    std::vector<IEvent*> chosen;
    try {
        chosen = accepted;
    } catch (...) {
        accepted.clear();  // they stay queued: the queue's to destroy
        throw;
    }
    accepted.clear();
    events.removeIf([&](IEvent* event) {
        if (!std::binary_search(chosen.begin(), chosen.end(), event)) {
            return false;
        }
        accepted.push_back(event);
        return true;
    });
}

}  // namespace

EventQueue::IEventQueueHandler::~IEventQueueHandler() = default;

EventQueue::EventQueue(const IEventQueueHandler* const handler,
                       std::function<bool()>&& isProcessingThread)
    : _mutex(std::make_unique<detail::OpaqueMutex>()),
      _handler(handler),
      _processing(false),
      _isProcessingThread(std::move(isProcessingThread)) {
    if (!_isProcessingThread) {
        const std::thread::id owner = std::this_thread::get_id();
        _isProcessingThread = [owner] { return std::this_thread::get_id() == owner; };
    }
}

EventQueue::~EventQueue() {
    discardQueued();
    _isProcessingThread = nullptr;
    _handler.reset();
}

void EventQueue::discardQueued() {
    detail::OpaqueGuard lock(_mutex->mutex);
    // Their destructors run under the lock and may post again: those go too.
    while (!_events.empty()) {
        std::unique_ptr<IEvent> event(_events.pop_front());
        _discarded.add(1);
    }
}

void EventQueue::postEvent(IEvent* const event, const IMatchEventFcn* const match,
                           const IMergeEventInfoFcn* const merge) {
    if (event == nullptr) {
        return;
    }
    // Owns the new event until it is in the list. Declared before the lock, so
    // an event refused by a throwing match or merge is destroyed unlocked.
    std::unique_ptr<IEvent> owned(event);
    detail::OpaqueGuard lock(_mutex->mutex);
    _posted.add(1);
    try {
        const std::size_t matched = match != nullptr ? getMatchingEvent(*match) : _events.size();
        if (matched < _events.size()) {
            IEvent* const queued = _events[matched];
            std::size_t at = matched;
            IEventInfo* const newInfo = owned->getEventInfo();
            IEventInfo* const queuedInfo = queued->getEventInfo();
            if (merge != nullptr && newInfo != nullptr && queuedInfo != nullptr) {
                (*merge)(newInfo, queuedInfo);
            }
            // The merge may have re-entered the queue; should it have removed
            // the matched event, there is nothing left to replace and the new
            // event is appended.
            if (findAgain(_events, queued, at)) {
                _events.replace(at, owned.release());
                _coalesced.add(1);
                // Destroyed under the lock, with the list already whole: its
                // destructor may use the queue.
                const std::unique_ptr<IEvent> replaced(queued);
                return;
            }
        }
        _events.push_back(owned.get());
    } catch (...) {
        _discarded.add(1);  // owned goes once the lock is released
        throw;
    }
    owned.release();
    // The notification rule for EVENT_POSTED, tested here so that the usual
    // post (to a queue that is not empty, or during a pass) makes no call.
    if (_events.size() == 1 && !_processing) {
        notifyIfEventsToProcess(EVENT_POSTED);
    }
}

// Marked as processEvent() is, which is inlined here.
KESTREL_CATCHES_THREAD_END void EventQueue::flushEvents(const IMatchEventFcn& match, bool service) {
    std::vector<IEvent*> flushed;
    // Counted under the lock once the flushed events are gone (declared
    // first, so that it outlives the guard, which counts the events it
    // destroys).
    struct FlushEnd {
        EventQueue& queue;
        Outcomes outcomes;
        ~FlushEnd() {
            if (outcomes.executed != 0 || outcomes.discarded != 0) {
                detail::OpaqueGuard lock(queue._mutex->mutex);
                queue.record(outcomes);
            }
        }
    } flushEnd{*this, Outcomes()};
    EventListGuard guard(flushed, flushEnd.outcomes.discarded);
    {
        detail::OpaqueGuard lock(_mutex->mutex);
        // match is asked about every event first, with the list left whole
        // (it may re-enter the queue); then the accepted events are unlinked
        // in one pass. Should match throw, those it accepted until then are
        // unlinked and destroyed unexecuted, and the others stay queued.
        flushed.reserve(_events.size());
        try {
            askQueued(_events, match, [&](std::size_t at) {
                flushed.push_back(_events[at]);
                return false;  // ask about them all
            });
        } catch (...) {
            unlinkAccepted(_events, flushed);
            _flushed.add(flushed.size());
            throw;
        }
        unlinkAccepted(_events, flushed);
        _flushed.add(flushed.size());
    }
    while (IEvent* const next = guard.take()) {
        std::unique_ptr<IEvent> event(next);
        if (service) {
            processEvent(event, flushEnd.outcomes);
        } else {
            ++flushEnd.outcomes.discarded;
        }
    }
}

namespace {

// processEvents(kEventsQueuedAtStart) serves as many events as are queued
// when the pass begins, counted under the lock that starts the pass.
constexpr std::size_t kEventsQueuedAtStart = std::numeric_limits<std::size_t>::max();

}  // namespace

void EventQueue::processEvents() {
    processEvents(kEventsQueuedAtStart);
}

bool EventQueue::isProcessingThread() const {
    return _isProcessingThread();
}

EventQueue::Counters EventQueue::getCounters() const {
    // The outcomes first: each was counted after its event's post, so posted,
    // read last, covers them all.
    Counters counters;
    counters.executed = _executed.get();
    counters.coalesced = _coalesced.get();
    counters.discarded = _discarded.get();
    counters.flushed = _flushed.get();
    counters.posted = _posted.get();
    return counters;
}

inline void EventQueue::record(const Outcomes& outcomes) {
    if (outcomes.executed != 0) {
        _executed.add(outcomes.executed);
    }
    if (outcomes.discarded != 0) {
        _discarded.add(outcomes.discarded);
    }
}

// Marked as processEvent() is, which is inlined here.
//
// The pass takes its first event under the lock that starts it, and a pop
// that finds the queue empty ends it under that same lock (with nothing left
// there is nobody to notify): a pass of n events takes the lock n + 1 times,
// not n + 3, which counts where the thread serves a few events at a time.
KESTREL_CATCHES_THREAD_END void EventQueue::processEvents(std::size_t maxEvents) {
    IEvent* first = nullptr;
    {
        detail::OpaqueGuard lock(_mutex->mutex);
        if (_processing || _events.empty()) {
            return;  // a pass over an empty queue serves and tells nothing
        }
        _processing = true;
        if (maxEvents == kEventsQueuedAtStart) {
            maxEvents = _events.size();
        }
        if (maxEvents > 0) {
            first = _events.pop_front();
        }
    }
    // Ends the pass even if something below throws (in practice only the
    // handler's notification can) or ends the thread. outcomes holds what the
    // served events came to since the last lock; each lock records it.
    struct PassEnd {
        EventQueue& queue;
        Outcomes outcomes;
        bool done;
        ~PassEnd() {
            if (!done) {
                detail::OpaqueGuard lock(queue._mutex->mutex);
                queue.record(outcomes);
                queue._processing = false;
            }
        }
    } passEnd{*this, Outcomes(), false};

    std::unique_ptr<IEvent> event(first);
    for (std::size_t served = 1; event; ++served) {
        processEvent(event, passEnd.outcomes);
        event.reset();
        if (served >= maxEvents) {
            break;
        }
        // Null when the queue is empty (also when another thread flushed it
        // meanwhile): the pass has then ended.
        event.reset(popEventOrEndPass(passEnd.outcomes));
        if (!event) {
            passEnd.done = true;
            return;
        }
    }
    // Notifying and leaving the pass under one lock: an event posted right
    // after the pass ends sees _processing false and notifies by itself.
    detail::OpaqueGuard lock(_mutex->mutex);
    record(passEnd.outcomes);
    passEnd.outcomes = Outcomes();
    notifyIfEventsToProcess(EVENTS_PROCESSED);
    _processing = false;
    passEnd.done = true;
}

inline IEvent* EventQueue::popEventOrEndPass(Outcomes& outcomes) {
    detail::OpaqueGuard lock(_mutex->mutex);
    record(outcomes);
    outcomes = Outcomes();
    if (_events.empty()) {
        _processing = false;
        return nullptr;
    }
    return _events.pop_front();
}

inline std::size_t EventQueue::getMatchingEvent(const IMatchEventFcn& match) {
    // The index of the first accepted event, or size() when none is; valid
    // until the next change of the list. An index, not a reference: match may
    // change the list while it is asked.
    std::size_t found = _events.size();
    askQueued(_events, match, [&](std::size_t at) {
        found = at;
        return true;
    });
    return found < _events.size() ? found : _events.size();
}

inline void EventQueue::notifyIfEventsToProcess(EventAction action) {
    const std::size_t count = _events.size();
    const bool notify = action == EVENTS_PROCESSED ? count > 0 : (count == 1 && !_processing);
    if (notify && _handler) {
        _handler->notifyEventsToProcess(count);
    }
}

KESTREL_CATCHES_THREAD_END inline void EventQueue::processEvent(std::unique_ptr<IEvent>& event,
                                                                Outcomes& outcomes) {
    ++outcomes.discarded;  // until it turns out to be executable
    try {
        if (event->isExecutable()) {
            --outcomes.discarded;
            ++outcomes.executed;
            event->execute();
        }
    }
    KESTREL_PASS_THREAD_END
    catch (...) {
        // An event's failure is its own business: the pass goes on.
    }
}

std::size_t EventQueue::getEventCount() const {
    detail::OpaqueGuard lock(_mutex->mutex);
    return _events.size();
}

EventQueue::EventList& EventQueue::getEventList() {
    return _events;
}

}  // namespace kestrel
