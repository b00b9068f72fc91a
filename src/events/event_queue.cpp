#include <algorithm>
#include <cstddef>
#include <exception>
#include <limits>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "events/opaque_mutex.h"
#include "kestrel/events.h"

namespace kestrel {

namespace {

// Destroys, unexecuted, the events still in a list when it goes out of scope:
// the events a flush moved aside when a match object threw, or was cut short.
class EventListGuard {
  public:
    explicit EventListGuard(std::vector<IEvent*>& events) : _events(events) {}
    EventListGuard(const EventListGuard&) = delete;
    EventListGuard& operator=(const EventListGuard&) = delete;
    ~EventListGuard() {
        for (std::size_t i = _next; i < _events.size(); ++i) {
            std::unique_ptr<IEvent> event(_events[i]);
        }
    }
    // Hands out the events in order; those not yet handed out are the
    // guard's to destroy.
    IEvent* take() { return _next < _events.size() ? _events[_next++] : nullptr; }

  private:
    std::vector<IEvent*>& _events;
    std::size_t _next = 0;
};

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
    {
        detail::OpaqueGuard lock(_mutex->mutex);
        while (!_events.empty()) {
            std::unique_ptr<IEvent> event(_events.front());
            _events.pop_front();
        }
    }
    _isProcessingThread = nullptr;
    _handler.reset();
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
    const EventList::iterator matched = match != nullptr ? getMatchingEvent(*match) : _events.end();
    if (matched != _events.end()) {
        IEventInfo* const newInfo = owned->getEventInfo();
        IEventInfo* const queuedInfo = (*matched)->getEventInfo();
        if (merge != nullptr && newInfo != nullptr && queuedInfo != nullptr) {
            (*merge)(newInfo, queuedInfo);
        }
        std::unique_ptr<IEvent> replaced(*matched);
        *matched = owned.release();
        return;  // the replaced event is destroyed here, under the lock
    }
    _events.push_back(owned.get());
    owned.release();
    notifyIfEventsToProcess(EVENT_POSTED);
}

void EventQueue::flushEvents(const IMatchEventFcn& match, bool service) {
    std::vector<IEvent*> flushed;
    EventListGuard guard(flushed);
    {
        detail::OpaqueGuard lock(_mutex->mutex);
        // Compacts the kept events towards the head in one pass. Should match
        // throw, the events not yet looked at close the gap, so that the queue
        // keeps every event that was not moved aside, in order.
        std::size_t kept = 0;
        std::size_t next = 0;
        struct CloseGap {
            EventList& events;
            std::size_t& kept;
            std::size_t& next;
            ~CloseGap() {
                const auto rest = events.begin() + static_cast<std::ptrdiff_t>(next);
                const auto to = events.begin() + static_cast<std::ptrdiff_t>(kept);
                events.erase(std::move(rest, events.end(), to), events.end());
            }
        } closeGap{_events, kept, next};
        flushed.reserve(_events.size());
        for (; next < _events.size(); ++next) {
            IEvent* const event = _events[next];
            if (match(event)) {
                flushed.push_back(event);
            } else {
                _events[kept++] = event;
            }
        }
    }
    while (IEvent* const next = guard.take()) {
        std::unique_ptr<IEvent> event(next);
        if (service) {
            processEvent(event);
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

void EventQueue::processEvents(std::size_t maxEvents) {
    {
        detail::OpaqueGuard lock(_mutex->mutex);
        if (_processing) {
            return;
        }
        _processing = true;
        if (maxEvents == kEventsQueuedAtStart) {
            maxEvents = _events.size();
        }
    }
    // Ends the pass even if something below throws (in practice only the
    // handler's notification can).
    struct PassEnd {
        EventQueue& queue;
        bool done;
        ~PassEnd() {
            if (!done) {
                detail::OpaqueGuard lock(queue._mutex->mutex);
                queue._processing = false;
            }
        }
    } passEnd{*this, false};

    // popEvent() reads the count and takes the head under one lock: null
    // when the queue is empty (also when another thread flushed it meanwhile).
    for (std::size_t served = 0; served < maxEvents; ++served) {
        std::unique_ptr<IEvent> event(popEvent());
        if (!event) {
            break;
        }
        processEvent(event);
    }
    // Notifying and leaving the pass under one lock: an event posted right
    // after the pass ends sees _processing false and notifies by itself.
    detail::OpaqueGuard lock(_mutex->mutex);
    notifyIfEventsToProcess(EVENTS_PROCESSED);
    _processing = false;
    passEnd.done = true;
}

IEvent* EventQueue::popEvent() {
    detail::OpaqueGuard lock(_mutex->mutex);
    if (_events.empty()) {
        return nullptr;
    }
    IEvent* const event = _events.front();
    _events.pop_front();
    return event;
}

EventQueue::EventList::iterator EventQueue::getMatchingEvent(const IMatchEventFcn& match) {
    EventList::iterator it = _events.begin();
    while (it != _events.end() && !match(*it)) {
        ++it;
    }
    return it;
}

void EventQueue::notifyIfEventsToProcess(EventAction action) {
    const std::size_t count = _events.size();
    const bool notify = action == EVENTS_PROCESSED ? count > 0 : (count == 1 && !_processing);
    if (notify && _handler) {
        _handler->notifyEventsToProcess(count);
    }
}

void EventQueue::processEvent(std::unique_ptr<IEvent>& event) {
    try {
        if (event->isExecutable()) {
            event->execute();
        }
    } catch (...) {
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
