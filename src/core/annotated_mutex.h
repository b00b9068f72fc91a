// Mutexes and locks that Clang's thread-safety analysis understands
// (internal). The standard library's and Boost's mutexes carry no
// annotations, so a member guarded by one of them cannot be checked; wrap the
// mutex in Annotated, mark the member KESTREL_GUARDED_BY it, and hold it with
// ScopedLock (or UniqueLock around a condition-variable wait).
#pragma once

#include <mutex>

#include "core/thread_annotations.h"

namespace kestrel {
namespace detail {

// Native (std::mutex, boost::recursive_mutex...) as a capability. The
// analysis treats every mutex as non-recursive: a recursive one is still
// taken once per scope in the code it checks.
template <typename Native>
class KESTREL_CAPABILITY("mutex") Annotated {
  public:
    Annotated() = default;
    Annotated(const Annotated&) = delete;
    Annotated& operator=(const Annotated&) = delete;

    void lock() KESTREL_ACQUIRE() KESTREL_NO_THREAD_SAFETY_ANALYSIS { _native.lock(); }
    void unlock() KESTREL_RELEASE() KESTREL_NO_THREAD_SAFETY_ANALYSIS { _native.unlock(); }
    bool try_lock() KESTREL_TRY_ACQUIRE(true) KESTREL_NO_THREAD_SAFETY_ANALYSIS {
        return _native.try_lock();
    }

    // The mutex itself, for UniqueLock.
    Native& native() { return _native; }

  private:
    Native _native;
};

using Mutex = Annotated<std::mutex>;

// Holds mutex (any type with lock() and unlock()) for its own life.
template <typename M>
class KESTREL_SCOPED_CAPABILITY ScopedLock {
  public:
    explicit ScopedLock(M& mutex) KESTREL_ACQUIRE(mutex) : _mutex(mutex) { _mutex.lock(); }
    ~ScopedLock() KESTREL_RELEASE() { _mutex.unlock(); }
    ScopedLock(const ScopedLock&) = delete;
    ScopedLock& operator=(const ScopedLock&) = delete;

  private:
    M& _mutex;
};

// A std::unique_lock on an annotated std::mutex, for the waits of a
// std::condition_variable (native()). The analysis sees the mutex held for
// the lock's whole life; a wait releases it only while it blocks.
class KESTREL_SCOPED_CAPABILITY UniqueLock {
  public:
    explicit UniqueLock(Mutex& mutex) KESTREL_ACQUIRE(mutex) : _lock(mutex.native()) {}
    ~UniqueLock() KESTREL_RELEASE() {}
    UniqueLock(const UniqueLock&) = delete;
    UniqueLock& operator=(const UniqueLock&) = delete;

    std::unique_lock<std::mutex>& native() { return _lock; }

  private:
    std::unique_lock<std::mutex> _lock;
};

}  // namespace detail
}  // namespace kestrel
