// The recursive mutex behind the events subsystem's public classes (internal).
#pragma once

#include <boost/thread/lock_guard.hpp>
#include <boost/thread/recursive_mutex.hpp>

#include "core/busy_wait.h"
#include "kestrel/events.h"

namespace kestrel {
namespace detail {

class OpaqueMutex {
  public:
    boost::recursive_mutex mutex;
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
