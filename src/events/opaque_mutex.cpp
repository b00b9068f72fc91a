#include "events/opaque_mutex.h"

namespace kestrel {
namespace detail {

OpaqueLock::OpaqueLock(OpaqueMutex& mutex) : _mutex(&mutex), _owns(false) {
    _mutex->mutex.lock();
    _owns = true;
    ++_mutex->enumerators;
}

OpaqueLock::OpaqueLock(OpaqueLock&& other) noexcept : _mutex(other._mutex), _owns(other._owns) {
    other._mutex = nullptr;
    other._owns = false;
}

OpaqueLock::~OpaqueLock() {
    if (_owns) {
        if (--_mutex->enumerators == 0 && _mutex->lastEnumeratorGone) {
            _mutex->lastEnumeratorGone();
        }
        _mutex->mutex.unlock();
    }
}

}  // namespace detail
}  // namespace kestrel
