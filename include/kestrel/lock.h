// KSCriticalSection, a recursive lock for callers that guard a section of
// their own code: enter() at the start of the section, leave() at its end.
// The library itself does not use it.
#pragma once

#include <memory>

#include "kestrel/export.h"

namespace kestrel {

// A recursive lock. The thread that holds it may enter again; the lock is
// released when every enter() has been matched by a leave(). A thread that
// does not hold it blocks in enter(), without a time limit and without
// spinning, until the holder's last leave(). There is no try-enter and no
// timed enter. Everything a thread wrote before its last leave() is visible
// to the thread whose enter() returns next.
//
// leave() by a thread that does not hold the lock, more leave() than
// enter() calls, and destroying the object while it is held are errors of
// the caller with undefined results.
//
// Thread safety: any thread may call enter(); leave() only by the holder.
// Lifetime: not copyable; destroy it only when no thread holds it.
// Errors: the constructor throws std::bad_alloc, or a std::runtime_error when
//   the system cannot create the lock; enter() throws a std::runtime_error
//   only when the system refuses the lock (recursion depth exhausted).
class KESTREL_API KSCriticalSection {
  public:
    KSCriticalSection();
    virtual ~KSCriticalSection();
    KSCriticalSection(const KSCriticalSection&) = delete;
    KSCriticalSection& operator=(const KSCriticalSection&) = delete;

    // Acquires the lock for the calling thread (again, if it holds it).
    void enter();
    // Releases one level of the calling thread's hold.
    void leave();

  private:
    struct RecursiveMutex;
    std::unique_ptr<RecursiveMutex> _mutex;
};

}  // namespace kestrel
