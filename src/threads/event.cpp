#include "kestrel/threads.h"
#include "threads/thread_support.h"

namespace kestrel {

Event::Event(bool manualReset, bool initialState)
    : _mutex(std::make_unique<Mutex>()),
      _condition(std::make_unique<Condition>()),
      _manualReset(manualReset),
      _signalled(initialState) {}

Event::~Event() = default;

void Event::signal() {
    {
        const std::lock_guard<std::mutex> lock(*_mutex);
        _signalled.store(true, std::memory_order_relaxed);
    }
    // The flag is set before anyone is woken, so a waiter that has not yet
    // blocked finds it when it tests.
    if (_manualReset) {
        _condition->notify_all();
    } else {
        _condition->notify_one();
    }
}

void Event::reset() {
    const std::lock_guard<std::mutex> lock(*_mutex);
    _signalled.store(false, std::memory_order_relaxed);
}

void Event::wait() {
    std::unique_lock<std::mutex> lock(*_mutex);
    while (!_signalled.load(std::memory_order_relaxed)) {
        _condition->wait(lock);
    }
    if (!_manualReset) {
        _signalled.store(false, std::memory_order_relaxed);
    }
}

}  // namespace kestrel
