#include <memory>

#include "kestrel/events.h"

namespace kestrel {

EventManager* EventManager::_singleton = nullptr;

EventManager* EventManager::createInstance(const EventQueue::IEventQueueHandler* const handler) {
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
    _singleton = nullptr;
    delete instance;
}

EventManager::EventManager(const EventQueue::IEventQueueHandler* const handler)
    : _eventQueue(std::make_unique<EventQueue>(handler, std::function<bool()>())) {}

EventManager::~EventManager() = default;

void EventManager::postEvent(IEvent* const event, const IMatchEventFcn* const match,
                             const IMergeEventInfoFcn* const merge) {
    _eventQueue->postEvent(event, match, merge);
}

void EventManager::flushEvents(const IMatchEventFcn& match, bool service) {
    _eventQueue->flushEvents(match, service);
}

void EventManager::processEvents() {
    _eventQueue->processEvents();
}

bool EventManager::isProcessingThread() const {
    return _eventQueue->isProcessingThread();
}

}  // namespace kestrel
