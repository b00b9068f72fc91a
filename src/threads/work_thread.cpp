#include <algorithm>
#include <boost/thread/barrier.hpp>
#include <boost/thread/exceptions.hpp>
#include <boost/thread/locks.hpp>
#include <boost/thread/recursive_mutex.hpp>

#include "core/thread_end.h"
#include "kestrel/threads.h"
#include "threads/thread_support.h"

namespace kestrel {

struct WorkThread::StateMutex : boost::recursive_mutex {};

struct WorkThread::StartBarrier : boost::barrier {
    StartBarrier() : boost::barrier(2) {}
};

namespace {

// The slice of each half of the alternating wait(Event&).
constexpr std::int64_t kWaitSliceNanoseconds = 1000000;

// How long wait(Event&) watches the flag before it blocks, bounded by the
// clock rather than by a number of rounds: a pause instruction takes from a
// few cycles to hundreds of nanoseconds (in virtual machines that trap it).
// Each work thread adapts its own watch between the bounds: it doubles after
// a watch that saw the signal and shrinks by the shortest watch after one
// that did not, so that a thread fed by a busy producer rarely sleeps (even
// when only every other watch succeeds) and one that gets work only now and
// then soon watches for no more than a microsecond.
constexpr std::int64_t kShortestWatchNanoseconds = 1000;
constexpr std::int64_t kLongestWatchNanoseconds = 16000;
thread_local std::int64_t watchNanoseconds = kShortestWatchNanoseconds;

}  // namespace

WorkThread::WorkThread(Thread::ThreadPriority priority)
    : Thread(priority),
      _stateMutex(std::make_unique<StateMutex>()),
      _state(STOPPED),
      _startBarrier(std::make_unique<StartBarrier>()),
      _stopEvent(false, false) {}

WorkThread::~WorkThread() = default;

bool WorkThread::start() {
    if (getState() != STOPPED) {
        return true;
    }
    setState(STARTING);
    bool started = false;
    try {
        started = Thread::start();
    } catch (...) {
        setState(STOPPED);
        throw;
    }
    if (!started) {
        setState(STOPPED);
        return false;
    }
    // The work thread arrives once starting() is over.
    _startBarrier->wait();
    setState(RUNNING);
    return true;
}

bool WorkThread::stop() {
    if (getState() == STOPPED) {
        return true;
    }
    setState(STOPPING);
    _stopEvent.signal();
    Thread::join();
    // A stop signal that no wait consumed must not reach the next start.
    _stopEvent.reset();
    setState(STOPPED);
    return true;
}

bool WorkThread::isActive() const {
    return getState() != STOPPED;
}

bool WorkThread::isRunning() const {
    return getState() == RUNNING;
}

bool WorkThread::isStopping() const {
    return getState() == STOPPING;
}

WorkThread::ThreadState WorkThread::getState() const {
    // Sequentially consistent, like the store: a poster to an EventThread
    // counts itself and then reads the state, stopping() reads the count
    // after the state has changed, and one of them must see the other.
    return _state.load(std::memory_order_seq_cst);
}

void WorkThread::setState(ThreadState state) {
    const boost::lock_guard<boost::recursive_mutex> lock(*_stateMutex);
    _state.store(state, std::memory_order_seq_cst);
}

void WorkThread::cleanup() {
    _stopEvent.reset();
    setState(STOPPED);
}

bool WorkThread::waitUntil(Event& event, std::int64_t deadlineNanoseconds) {
    const auto deadline = detail::waitClockTimePoint(deadlineNanoseconds);
    std::unique_lock<std::mutex> lock(*event._mutex);
    // A deadline that has passed never reaches the condition variable: the
    // flag alone decides.
    while (!event._signalled.load(std::memory_order_relaxed) &&
           detail::WaitClock::now() < deadline) {
        if (event._condition->wait_until(lock, deadline) == std::cv_status::timeout) {
            break;
        }
    }
    if (!event._signalled.load(std::memory_order_relaxed)) {
        return false;
    }
    if (!event._manualReset) {
        event._signalled.store(false, std::memory_order_relaxed);
    }
    return true;
}

bool WorkThread::wait(Event& event) {
    // A thread that waits for work usually gets it from threads that are
    // producing right now: watching the flag for some microseconds first
    // saves both sides the cost of putting this thread to sleep and waking
    // it again. The waits below decide as before; this only lets the first
    // of them find the flag set.
    const std::int64_t watchEnd = detail::waitClockNanoseconds() + watchNanoseconds;
    while (!event._signalled.load(std::memory_order_relaxed) &&
           detail::waitClockNanoseconds() < watchEnd) {
        detail::cpuRelax();
    }
    watchNanoseconds =
        event._signalled.load(std::memory_order_relaxed)
            ? std::min(watchNanoseconds * 2, kLongestWatchNanoseconds)
            : std::max(watchNanoseconds - kShortestWatchNanoseconds, kShortestWatchNanoseconds);
    for (;;) {
        if (waitUntil(event, detail::waitClockNanoseconds() + kWaitSliceNanoseconds)) {
            return true;
        }
        if (waitUntil(_stopEvent, detail::waitClockNanoseconds() + kWaitSliceNanoseconds)) {
            return false;
        }
    }
}

bool WorkThread::wait(double seconds) {
    if (seconds == Thread::INFINITE_SECONDS) {
        _stopEvent.wait();
        return false;
    }
    const std::int64_t deadline =
        detail::waitClockNanoseconds() + detail::roundedNanoseconds(seconds);
    return !waitUntil(_stopEvent, deadline);
}

KESTREL_CATCHES_THREAD_END bool WorkThread::run() {
    // A hook that ends the thread (pthread_exit, cancellation) ends it at
    // once: no further hook runs, since its end may not be caught for good.
    // The owner's start() still gets its rendezvous, and stop() joins the
    // ended thread as it joins one whose hook threw.
    bool result = true;
    struct Rendezvous {
        StartBarrier& barrier;
        bool done = false;
        void pass() {
            done = true;
            barrier.wait();
        }
        ~Rendezvous() {
            if (!done) {
                barrier.wait();
            }
        }
    } rendezvous{*_startBarrier};
    try {
        starting();
    }
    KESTREL_PASS_THREAD_END
    catch (...) {
        result = false;
    }
    rendezvous.pass();
    try {
        running();
        while (getState() != STOPPING) {
            running();
        }
    } catch (const boost::thread_interrupted&) {
        // An interruption ends the loop quietly.
    }
    KESTREL_PASS_THREAD_END
    catch (...) {
        result = false;
    }
    try {
        stopping();
    }
    KESTREL_PASS_THREAD_END
    catch (...) {
        result = false;
    }
    return result;
}

void WorkThread::starting() {}

void WorkThread::stopping() {}

}  // namespace kestrel
