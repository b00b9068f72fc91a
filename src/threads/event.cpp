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
    // by one wait only. The same holds for the threads in wait(): the word
    // changes under the lock, and they are woken after it.
    constexpr std::size_t kWakesAfterLock = 4;
    platform::Sleeper::Waker wakes[kWakesAfterLock];
    std::size_t taken = 0;
    bool wakeSleepers = false;
    {
        const detail::ScopedLock<Mutex> lock(*_mutex);
        _signalled.store(true, std::memory_order_relaxed);
        for (const detail::EventWatch* watch = _mutex->watches; watch != nullptr;
             watch = watch->next) {
            if (taken < kWakesAfterLock) {
                wakes[taken++] = watch->sleeper->waker();
            } else {
                watch->sleeper->wake();
            }
        }
        if (_mutex->sleepers != 0) {
            // A sleeper that has not reached the system's wait yet finds the
            // word changed and does not block.
            _condition->word.fetch_add(1, std::memory_order_relaxed);
            wakeSleepers = true;
        }
    }
    const detail::SignalHook hook = detail::signalHook.load(std::memory_order_acquire);
    if (hook != nullptr) {
        hook(detail::SignalPoint::kWakesTaken, taken);
    }
    for (platform::Sleeper::Waker& wake : wakes) {
        wake.wake();
    }
    // The flag is set before anyone is woken, so a waiter that has not yet
    // blocked finds it when it tests. Only the address is used: the event
    // may be gone once a waiter has run (see kestrel/threads.h).
    if (wakeSleepers) {
        if (_manualReset) {
            platform::wakeWordWaiters(&_condition->word);
        } else {
            platform::wakeOneWordWaiter(&_condition->word);
        }
    }
    if (hook != nullptr) {
        hook(detail::SignalPoint::kEnd, 0);
    }
}

void Event::reset() {
    const detail::ScopedLock<Mutex> lock(*_mutex);
    _signalled.store(false, std::memory_order_relaxed);
}

void Event::wait() {
    detail::UniqueLock lock(*_mutex);
    while (!_signalled.load(std::memory_order_relaxed)) {
        // Counted among the sleepers while it is one, so that signal()
        // changes the word and wakes it.
        ++_mutex->sleepers;
        const int word = _condition->word.load(std::memory_order_relaxed);
        lock.native().unlock();
        // Re-takes the lock and stops counting however the sleep ends: a
        // cancelled thread (the sleep is a cancellation point) unwinds from
        // it, and must not leave later signals waking nobody at a system
        // call's cost.
        struct Awake {
            Event& event;
            std::unique_lock<std::mutex>& lock;
            ~Awake() KESTREL_NO_THREAD_SAFETY_ANALYSIS {
                lock.lock();
                --event._mutex->sleepers;
            }
        } awake{*this, lock.native()};
        platform::sleepOnWord(_condition->word, word);
    }
    if (!_manualReset) {
        _signalled.store(false, std::memory_order_relaxed);
    }
}

}  // namespace kestrel
