// The recursive mutex behind the events subsystem's public classes (internal):
// every post and every pop of a queue takes it, see core/recursive_mutex.h.
#pragma once

#include "core/recursive_mutex.h"
#include "kestrel/events.h"

namespace kestrel {
namespace detail {

class OpaqueMutex {
  public:
    RecursiveMutex mutex;
};

// Holds the mutex for a scope.
class OpaqueGuard {
  public:
    explicit OpaqueGuard(RecursiveMutex& mutex) : _mutex(mutex) { _mutex.lock(); }
    ~OpaqueGuard() { _mutex.unlock(); }
    OpaqueGuard(const OpaqueGuard&) = delete;
    OpaqueGuard& operator=(const OpaqueGuard&) = delete;

  private:
    RecursiveMutex& _mutex;
};

}  // namespace detail
}  // namespace kestrel
