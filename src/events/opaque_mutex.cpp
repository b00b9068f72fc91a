#include "events/opaque_mutex.h"

namespace kestrel {
namespace detail {

// An enumerator's lock outlives the scope that takes it: beyond the analysis.
OpaqueLock::OpaqueLock(OpaqueMutex& mutex) KESTREL_NO_THREAD_SAFETY_ANALYSIS : _mutex(&mutex),
                                                                               _owns(false) {
    _mutex->mutex.lock();
    _owns = true;
    ++_mutex->enumerators;
}

OpaqueLock::OpaqueLock(OpaqueLock&& other) noexcept : _mutex(other._mutex), _owns(other._owns) {
    other._mutex = nullptr;
    other._owns = false;
}

OpaqueLock::~OpaqueLock() KESTREL_NO_THREAD_SAFETY_ANALYSIS {
    if (_owns) {
        if (--_mutex->enumerators == 0 && _mutex->lastEnumeratorGone) {
            _mutex->lastEnumeratorGone();
        }
        _mutex->mutex.unlock();
    }
}

}  // namespace detail
}  // namespace kestrel
