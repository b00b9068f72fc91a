#include <limits>
#include <list>
#include <memory>
#include <new>

#include "events/opaque_mutex.h"
#include "kestrel/events.h"

namespace kestrel {

// While a TLockingEnumerator exists, the thread that holds it may still call
// the log (its lock is recursive), but the log must not unlink any entry: the
// enumerator's positions would be left dangling. Entries the log drops then
// are only counted (OpaqueMutex::dropped, always at the head of the list)
// and unlinked and released when the last enumerator goes.
EventInfoLog::EventInfoLog(int maxToLog)
    : _mutex(std::make_unique<detail::OpaqueMutex>()), _maxToLog(0) {
    // Called by the last enumerator's lock, which still holds the mutex.
    _mutex->lastEnumeratorGone = [this]() KESTREL_REQUIRES(_mutex->mutex) {
        // A record's destructor may use the log again, even make and drop an
        // enumerator: each entry is unlinked before its record is released.
        while (_mutex->enumerators == 0 && _mutex->dropped > 0 && !_log.empty()) {
            IEventInfo* const oldest = _log.front();
            _log.pop_front();
            --_mutex->dropped;
            oldest->releaseRef();
        }
    };
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
    const bool full = getNumberLogged() >= _maxToLog;
    if (full && _mutex->enumerators == 0) {
        // The oldest entry's place takes the new record: nothing to allocate.
        // The list is whole before the old record's destructor runs.
        _log.splice(_log.end(), _log, _log.begin());
        IEventInfo* const oldest = _log.back();
        _log.back() = info;
        oldest->releaseRef();
        return;
    }
    // The new entry is made before anything is dropped, so that running out
    // of memory loses neither the oldest entry nor the new record.
    std::list<IEventInfo*> entry;
    try {
        entry.push_back(info);
    } catch (const std::bad_alloc&) {
        if (_mutex->enumerators == 0 && !_log.empty()) {
            // Keeps the newest: the oldest gives up its place.
            _log.splice(_log.end(), _log, _log.begin());
            IEventInfo* const oldest = _log.back();
            _log.back() = info;
            oldest->releaseRef();
        } else {
            info->releaseRef();  // nowhere to keep it: the log's reference goes back
        }
        return;
    }
    if (full) {
        clearOldest();
    }
    _log.splice(_log.end(), entry);
}

void EventInfoLog::clear() {
    detail::OpaqueGuard lock(_mutex->mutex);
    while (getNumberLogged() > 0) {
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
    return static_cast<int>(_log.size() - _mutex->dropped);
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
    if (_log.size() == _mutex->dropped) {
        return;
    }
    if (_mutex->enumerators > 0) {
        ++_mutex->dropped;  // released when the last enumerator goes
        return;
    }
    // Unlinked first, so a record destructor that calls back into the log
    // finds a consistent list.
    IEventInfo* const oldest = _log.front();
    _log.pop_front();
    oldest->releaseRef();
}

int EventInfoLog::getMaxOfContainer() const {
    detail::OpaqueGuard lock(_mutex->mutex);
    return std::numeric_limits<int>::max();
}

}  // namespace kestrel
