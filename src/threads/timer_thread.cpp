#include <boost/thread/locks.hpp>
#include <boost/thread/recursive_mutex.hpp>

#include <typeinfo>

#include "core/contract.h"
#include "kestrel/threads.h"
#include "platform/platform.h"
#include "threads/thread_support.h"

namespace kestrel {

struct TimerThread::Mutex : detail::Annotated<boost::recursive_mutex> {};

namespace {

using Lock = detail::ScopedLock<detail::Annotated<boost::recursive_mutex>>;

// Executions happen this long after their due time, never before it.
constexpr double kDueMargin = 0.0005;

}  // namespace

TimerThread::TimerThread(ExecutionMode mode, double period)
    : WorkThread(Thread::HIGH_PRIORITY),
      _mutex(std::make_unique<Mutex>()),
      _mode(mode),
      _period(1.0),
      _executions(0),
      _startTime(),
      _executionTime(_startTime),
      _restarting(false) {
    setThreadName("kestrel-timer");
    setPeriod(period);
}

TimerThread::~TimerThread() {
    KESTREL_EXPECTS(getState() == STOPPED,
                    "TimerThread destroyed while its thread is running: call stop() in the "
                    "destructor of your subclass (see kestrel/threads.h, TimerThread)");
    stop();
}

bool TimerThread::start() {
    return WorkThread::start();
}

bool TimerThread::stop() {
    return WorkThread::stop();
}

void TimerThread::setPeriod(double period) {
    KESTREL_EXPECTS(!detail::isCurrentWorkThread(this),
                    "TimerThread::setPeriod() called on the timer thread (from executing()), "
                    "where restarting would join the thread itself: change the period from the "
                    "owner's thread (see kestrel/threads.h, TimerThread)");
    if (!(period > 0.0) || period == Thread::INFINITE_SECONDS || getPeriod() == period) {
        return;
    }
    const bool wasActive = getState() != STOPPED;
    if (wasActive) {
        stop();
    }
    {
        const Lock lock(*_mutex);
        _period = period;
    }
    if (wasActive) {
        // The new timer thread reads the flag in starting(), before start()
        // returns.
        _restarting = true;
        try {
            start();
        } catch (...) {
            _restarting = false;
            throw;
        }
        _restarting = false;
    }
}

double TimerThread::getPeriod() const {
    const Lock lock(*_mutex);
    return _period;
}

int TimerThread::getExecutions() const {
    const Lock lock(*_mutex);
    return _executions;
}

Timestamp TimerThread::getStartTime() const {
    const Lock lock(*_mutex);
    return _startTime;
}

Timestamp TimerThread::getExecutionTime() const {
    const Lock lock(*_mutex);
    return _executionTime;
}

void TimerThread::waitUntilStop() {
    wait(Thread::INFINITE_SECONDS);
}

void TimerThread::starting() {
    platform::requestPreciseTimedWaits();
    initExecution();
}

void TimerThread::running() {
    // The period and the last scheduled time under one lock, and the pass's
    // start read only where the mode needs it (a fixed rate does not): one
    // lock round trip and one clock reading less per tick.
    double period = 0.0;
    Timestamp last(0.0);
    {
        const Lock lock(*_mutex);
        period = _period;
        last = _executionTime;
    }
    const Timestamp next = _mode == FIXED_DELAY ? Timestamp() + period : last + period;
    double delay = next - Timestamp();
    delay = delay < 0.0 ? 0.0 : delay + kDueMargin;
    // One sleep to the due time, which the precise waits asked for in
    // starting() end close to it.
    if (!wait(delay)) {
        return;  // stop requested
    }
    {
        // Recorded together, so that a reader never sees the new time with
        // the old count.
        const Lock lock(*_mutex);
        _executionTime = next;
        ++_executions;
    }
    // Once the owner has begun to destroy the object without stopping it,
    // executing() has no body left: report that rather than crash in the
    // call.
    KESTREL_EXPECTS(typeid(*this) != typeid(TimerThread),
                    "TimerThread destroyed while its thread is running: call stop() in the "
                    "destructor of your subclass (see kestrel/threads.h, TimerThread)");
    executing();
}

void TimerThread::initExecution() {
    if (_restarting) {
        return;
    }
    const Lock lock(*_mutex);
    const Timestamp now;
    _executions = 0;
    _startTime = now;
    _executionTime = now;
}

void TimerThread::setExecutionTime(Timestamp t) {
    const Lock lock(*_mutex);
    _executionTime = t;
}

void TimerThread::incrementExecutions() {
    const Lock lock(*_mutex);
    ++_executions;
}

}  // namespace kestrel
