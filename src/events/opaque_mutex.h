// The recursive mutex behind the events subsystem's public classes (internal).
#pragma once

#include <boost/thread/lock_guard.hpp>
#include <boost/thread/recursive_mutex.hpp>
#include <cstddef>
#include <functional>

#include "core/busy_wait.h"
#include "kestrel/events.h"

namespace kestrel {
namespace detail {

class OpaqueMutex {
  public:
    boost::recursive_mutex mutex;
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

// Holds the mutex for a scope. Every section under these mutexes is short
// (a post, a pop, a count), so a thread that finds one held retries for a
// moment before it blocks.
class OpaqueGuard {
  public:
    explicit OpaqueGuard(boost::recursive_mutex& mutex) : _mutex(mutex) { lockPromptly(mutex); }
    ~OpaqueGuard() { _mutex.unlock(); }
    OpaqueGuard(const OpaqueGuard&) = delete;
    OpaqueGuard& operator=(const OpaqueGuard&) = delete;

  private:
    boost::recursive_mutex& _mutex;
};

}  // namespace detail
}  // namespace kestrel
