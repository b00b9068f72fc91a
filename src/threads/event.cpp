#include <atomic>
#include <cstddef>

#include "kestrel/threads.h"
#include "threads/thread_support.h"

namespace kestrel {

namespace detail {

namespace {
std::atomic<SignalHook> signalHook{nullptr};
}  // namespace

void setSignalHookForTesting(SignalHook hook) {
    signalHook.store(hook, std::memory_order_release);
}

}  // namespace detail

Event::Event(bool manualReset, bool initialState)
    : _mutex(std::make_unique<Mutex>()),
      _condition(std::make_unique<Condition>()),
      _manualReset(manualReset),
      _signalled(initialState) {}

Event::~Event() = default;

void Event::signal() {
    // The WorkThread waits on this event, each of which also waits on a stop
    // request. A woken wait takes this event's lock first thing, so its wake
    // is given once the lock is released: woken under it, the wait would
    // block on the lock at once and need a second wake-up (on a busy machine
    // the woken thread often runs at once, on the signalling thread's CPU).
    // A wait leaves the list (and may end its sleeper) under the lock, so the
    // wakes are taken under it, as Wakers that keep their sleepers' state
    // alive; the rare waits beyond the first few are woken under the lock.
    // Each looks at the flag again, so an auto-reset signal is still taken
    // by one wait only.
    constexpr std::size_t kWakesAfterLock = 4;
    platform::Sleeper::Waker wakes[kWakesAfterLock];
    {
        const detail::ScopedLock<Mutex> lock(*_mutex);
        _signalled.store(true, std::memory_order_relaxed);
        std::size_t taken = 0;
        for (const detail::EventWatch* watch = _mutex->watches; watch != nullptr;
             watch = watch->next) {
            if (taken < kWakesAfterLock) {
                wakes[taken++] = watch->sleeper->waker();
            } else {
                watch->sleeper->wake();
            }
        }
    }
    for (platform::Sleeper::Waker& wake : wakes) {
        wake.wake();
    }
    // The flag is set before anyone is woken, so a waiter that has not yet
    // blocked finds it when it tests.
    if (_manualReset) {
        _condition->notify_all();
    } else {
        _condition->notify_one();
    }
    if (const detail::SignalHook hook = detail::signalHook.load(std::memory_order_acquire)) {
        hook();
    }
}

void Event::reset() {
    const detail::ScopedLock<Mutex> lock(*_mutex);
    _signalled.store(false, std::memory_order_relaxed);
}

void Event::wait() {
    detail::UniqueLock lock(*_mutex);
    while (!_signalled.load(std::memory_order_relaxed)) {
        _condition->wait(lock.native());
    }
    if (!_manualReset) {
        _signalled.store(false, std::memory_order_relaxed);
    }
}

}  // namespace kestrel
