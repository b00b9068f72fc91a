#include <atomic>

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
    {
        const detail::ScopedLock<Mutex> lock(*_mutex);
        _signalled.store(true, std::memory_order_relaxed);
        // The WorkThread waits on this event, each of which also waits on a
        // stop request: woken under the lock, since a wait leaves the list
        // (and may end its sleeper) only under it. Each looks at the flag
        // again, so an auto-reset signal is still taken by one wait only.
        for (const detail::EventWatch* watch = _mutex->watches; watch != nullptr;
             watch = watch->next) {
            watch->sleeper->wake();
        }
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
