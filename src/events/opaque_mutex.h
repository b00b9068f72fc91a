// The recursive mutex behind the events subsystem's public classes (internal):
// every post and every pop of a queue takes it, see core/recursive_mutex.h.
#pragma once

#include <cstddef>
#include <functional>

#include "core/recursive_mutex.h"
#include "kestrel/events.h"

namespace kestrel {
namespace detail {

class OpaqueMutex {
  public:
    RecursiveMutex mutex;
    // The OpaqueLocks (the locks of TLockingEnumerators) that hold the mutex
    // now; they all belong to the thread that holds it.
    std::size_t enumerators = 0;
    // Called, with the mutex still held, when the last of them goes.
    std::function<void()> lastEnumeratorGone;
    // The entries at the head of the owner's list that it has dropped while
    // enumerators exist: they stay in the list, and alive, until the last
    // enumerator goes, since an enumerator may stand on any of them.
    std::size_t dropped = 0;
};

// Holds the mutex for a scope.
class KESTREL_SCOPED_CAPABILITY OpaqueGuard {
  public:
    explicit OpaqueGuard(RecursiveMutex& mutex) KESTREL_ACQUIRE(mutex) : _mutex(mutex) {
        _mutex.lock();
    }
    ~OpaqueGuard() KESTREL_RELEASE() { _mutex.unlock(); }
    OpaqueGuard(const OpaqueGuard&) = delete;
    OpaqueGuard& operator=(const OpaqueGuard&) = delete;

  private:
    RecursiveMutex& _mutex;
};

}  // namespace detail
}  // namespace kestrel
