#include <limits>
#include <memory>

#include "events/opaque_mutex.h"
#include "kestrel/events.h"

namespace kestrel {

EventInfoLog::EventInfoLog(int maxToLog)
    : _mutex(std::make_unique<detail::OpaqueMutex>()), _maxToLog(0) {
    setMaxToLog(maxToLog);
}

EventInfoLog::~EventInfoLog() {
    clear();
}

void EventInfoLog::append(IEventInfo* const info) {
    if (info == nullptr || !info->isLoggable()) {
        return;
    }
    detail::OpaqueGuard lock(_mutex->mutex);
    if (_maxToLog == 0) {
        info->releaseRef();
        return;
    }
    if (getNumberLogged() == _maxToLog) {
        clearOldest();
    }
    _log.push_back(info);
}

void EventInfoLog::clear() {
    detail::OpaqueGuard lock(_mutex->mutex);
    while (!_log.empty()) {
        clearOldest();
    }
}

int EventInfoLog::getMaxToLog() const {
    detail::OpaqueGuard lock(_mutex->mutex);
    return _maxToLog;
}

void EventInfoLog::setMaxToLog(int maxToLog) {
    // NO_LIMIT means as many as the log can count; other negative limits
    // would never be reached by the trimming below and turn logging off.
    int limit = maxToLog;
    if (limit == NO_LIMIT) {
        limit = getMaxOfContainer();
    } else if (limit < 0) {
        limit = 0;
    }
    detail::OpaqueGuard lock(_mutex->mutex);
    while (getNumberLogged() > limit) {
        clearOldest();
    }
    _maxToLog = limit;
}

int EventInfoLog::getNumberLogged() const {
    detail::OpaqueGuard lock(_mutex->mutex);
    // The limit is an int, so the log never holds more entries than an int counts.
    return static_cast<int>(_log.size());
}

bool EventInfoLog::isLogFull() const {
    detail::OpaqueGuard lock(_mutex->mutex);
    return getNumberLogged() == _maxToLog;
}

TLockingEnumerator<std::list<IEventInfo*>>* EventInfoLog::getLockingEnumerator() const {
    return new TLockingEnumerator<std::list<IEventInfo*>>(detail::OpaqueLock(*_mutex), _log);
}

void EventInfoLog::clearOldest() {
    detail::OpaqueGuard lock(_mutex->mutex);
    if (!_log.empty()) {
        // Unlinked first, so a record destructor that calls back into the log
        // finds a consistent list.
        IEventInfo* const oldest = _log.front();
        _log.pop_front();
        oldest->releaseRef();
    }
}

int EventInfoLog::getMaxOfContainer() const {
    detail::OpaqueGuard lock(_mutex->mutex);
    return std::numeric_limits<int>::max();
}

}  // namespace kestrel
