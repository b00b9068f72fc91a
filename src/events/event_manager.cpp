#include <memory>
#include <utility>
#include <vector>

#include "core/contract.h"
#include "kestrel/events.h"

namespace kestrel {

EventManager* EventManager::_singleton = nullptr;

namespace {

// Calls into an event manager under way on this thread. Inside one of them
// the caller's code runs (an event it executes, a match or merge object, the
// handler, the destructor of a replaced or flushed event), and that code may
// destroy the instance: the destruction then waits until the outermost call
// has returned, since the call still uses the instance.
thread_local int callsInProgress = 0;

// The instances whose destruction waits, with the means to destroy them.
// A plain pointer: a thread_local with a destructor registers a per-thread
// exit handler in the library, which mingw-w64 runs under the loader lock.
struct Doomed {
    EventManager* instance;
    void (*destroy)(EventManager*);
    Doomed* next;
};
thread_local Doomed* doomed = nullptr;

class ManagerCall {
  public:
    ManagerCall() { ++callsInProgress; }
    ~ManagerCall() {
        if (--callsInProgress == 0) {
            // Held as a call itself, so that whatever the destruction runs
            // (the destructors of queued events) is deferred in turn.
            ++callsInProgress;
            while (doomed != nullptr) {
                const std::unique_ptr<Doomed> next(doomed);
                doomed = next->next;
                next->destroy(next->instance);
            }
            --callsInProgress;
        }
    }
    ManagerCall(const ManagerCall&) = delete;
    ManagerCall& operator=(const ManagerCall&) = delete;
};

struct AnyEvent : IMatchEventFcn {
    bool operator()(IEvent*) const override { return true; }
};

}  // namespace

EventManager* EventManager::createInstance(const EventQueue::IEventQueueHandler* const handler) {
    KESTREL_EXPECTS(_singleton == nullptr || _singleton->isProcessingThread(),
                    "EventManager::createInstance() called on a thread other than the processing "
                    "thread of the existing instance: create, get and destroy the manager on one "
                    "thread (see kestrel/events.h, EventManager)");
    if (_singleton == nullptr) {
        _singleton = new EventManager(handler);
    }
    return _singleton;
}

EventManager* EventManager::getInstance() {
    return _singleton;
}

void EventManager::destroyInstance() {
    EventManager* const instance = _singleton;
    if (instance == nullptr) {
        return;
    }
    KESTREL_EXPECTS(instance->isProcessingThread(),
                    "EventManager::destroyInstance() called on a thread other than its processing "
                    "thread (the one that created it): destroy the manager on that thread (see "
                    "kestrel/events.h, EventManager)");
    if (callsInProgress == 0) {
        _singleton = nullptr;
        delete instance;
        return;
    }
    // Called from inside one of the manager's calls on this thread: the
    // instance goes when that call returns. Its queued events go now,
    // unexecuted, so that a pass in progress ends with the event that asked.
    doomed = new Doomed{instance, [](EventManager* manager) { delete manager; }, doomed};
    _singleton = nullptr;
    instance->_eventQueue->flushEvents(AnyEvent(), false);
}

EventManager::EventManager(const EventQueue::IEventQueueHandler* const handler)
    : _eventQueue(std::make_unique<EventQueue>(handler, std::function<bool()>())) {}

EventManager::~EventManager() = default;

void EventManager::postEvent(IEvent* const event, const IMatchEventFcn* const match,
                             const IMergeEventInfoFcn* const merge) {
    const ManagerCall call;
    _eventQueue->postEvent(event, match, merge);
}

void EventManager::flushEvents(const IMatchEventFcn& match, bool service) {
    const ManagerCall call;
    _eventQueue->flushEvents(match, service);
}

void EventManager::processEvents() {
    const ManagerCall call;
    _eventQueue->processEvents();
}

bool EventManager::isProcessingThread() const {
    return _eventQueue->isProcessingThread();
}

EventQueue::Counters EventManager::getCounters() const {
    return _eventQueue->getCounters();
}

}  // namespace kestrel
