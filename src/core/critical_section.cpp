#include <boost/thread/recursive_mutex.hpp>

#include "kestrel/lock.h"

namespace kestrel {

// Boost's recursive mutex keeps the owning thread and the recursion count
// next to the underlying lock.
struct KSCriticalSection::RecursiveMutex {
    boost::recursive_mutex mutex;
};

KSCriticalSection::KSCriticalSection() : _mutex(std::make_unique<RecursiveMutex>()) {}

KSCriticalSection::~KSCriticalSection() = default;

void KSCriticalSection::enter() {
    _mutex->mutex.lock();
}

void KSCriticalSection::leave() {
    _mutex->mutex.unlock();
}

}  // namespace kestrel
