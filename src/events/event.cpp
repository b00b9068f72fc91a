#include <memory>

#include "kestrel/events.h"

namespace kestrel {

// ---- IEventInfo ----

IEventInfo::IEventInfo(const char* typeName, bool loggable)
    : _typeName(typeName), _loggable(loggable), _refCount(loggable ? 2U : 1U) {}

IEventInfo::~IEventInfo() = default;

const char* IEventInfo::getEventTypeName() const {
    return _typeName.c_str();
}

bool IEventInfo::isLoggable() const {
    return _loggable;
}

void IEventInfo::addRef() {
    ++_refCount;
}

void IEventInfo::releaseRef() {
    if (--_refCount == 0) {
        delete this;
    }
}

// ---- function objects ----

IMatchEventFcn::~IMatchEventFcn() = default;

IMergeEventInfoFcn::~IMergeEventInfoFcn() = default;

// ---- IEvent ----

IEvent::IEvent(IEventInfo* info) : _eventInfo(info) {}

IEvent::~IEvent() {
    if (_eventInfo != nullptr) {
        _eventInfo->releaseRef();
    }
}

bool IEvent::isExecutable() const {
    return true;
}

IEventInfo* IEvent::getEventInfo() const {
    return _eventInfo;
}

bool IEvent::serviceEvent(bool serviceNow) {
    return serviceOrCoalesceEvent(serviceNow, nullptr, nullptr);
}

void IEvent::postEvent(EventThread& thread) {
    postOrCoalesceEvent(thread, nullptr, nullptr);
}

bool IEvent::serviceOrCoalesceEvent(bool serviceNow, const IMatchEventFcn* match,
                                    const IMergeEventInfoFcn* merge) {
    // From here on this event is ours to destroy, whatever happens.
    std::unique_ptr<IEvent> self(this);
    if (!self->isExecutable()) {
        return true;
    }
    EventManager* const manager = EventManager::getInstance();
    if (manager == nullptr) {
        return false;
    }
    if (serviceNow && manager->isProcessingThread()) {
        // An exception from execute() passes on; the event is destroyed anyway.
        return self->execute();
    }
    manager->postEvent(self.release(), match, merge);
    return true;
}

void IEvent::flushEvents(const IMatchEventFcn& match, bool service) {
    EventManager* const manager = EventManager::getInstance();
    if (manager != nullptr) {
        manager->flushEvents(match, service);
    }
}

}  // namespace kestrel
