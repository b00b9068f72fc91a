#include "events/opaque_mutex.h"

namespace kestrel {
namespace detail {

OpaqueLock::OpaqueLock(OpaqueMutex& mutex) : _mutex(&mutex), _owns(false) {
    _mutex->mutex.lock();
    _owns = true;
}

OpaqueLock::OpaqueLock(OpaqueLock&& other) noexcept : _mutex(other._mutex), _owns(other._owns) {
    other._mutex = nullptr;
    other._owns = false;
}

OpaqueLock::~OpaqueLock() {
    if (_owns) {
        _mutex->mutex.unlock();
    }
}

}  // namespace detail
}  // namespace kestrel
