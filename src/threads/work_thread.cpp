// The work thread's life cycle and its stop-aware waits.
//
// How a wait blocks on two events at once. Each WorkThread has a sleeper (a
// mutex, a condition variable and a flag on Linux; an event object on
// Windows) on which its waits sleep. wait(Event&) tests the given event
// under that event's lock and, when it is not set, registers the sleeper
// with it in the same locked step (a Watch); then it does the same with the
// stop event; then it sleeps. signal() takes a wake of every sleeper
// registered with its event while it holds the event's lock and gives it
// right after, so a signal given after the test reaches the sleeper, whose
// wake is kept if it is not asleep yet:
// nothing is lost, and the thread sleeps in one wait, without time slices,
// until one of the two events is signalled. Each lock is taken on its own,
// never two events' together.
//
// The results are those of testing the event first. A wake only makes the
// wait look again, in the same order: an event found set wins; a stop found
// set makes the wait test the event once more (both may be set by then, and
// the event still wins, leaving the stop for the next wait) before it takes
// the stop and returns false. A signal is consumed only by the test that
// returns it, under the event's lock, so an auto-reset event goes to one
// wait only, and a wait woken for a signal that another waiter took sleeps
// again. The registration ends before the wait returns, under the event's
// lock, so signal() finds only sleepers that exist; a wake it took may still
// arrive after the wait has returned (it holds the sleeper's state, not the
// sleeper), and ends the next sleep early: every sleep is in a loop that
// looks again.
//
// The timed waits use the same sleeper with an absolute deadline on the
// steady clock: the system ends the sleep at the deadline or at a signal,
// and the flag is tested once more then.
#include <boost/thread/barrier.hpp>
#include <boost/thread/exceptions.hpp>
#include <boost/thread/locks.hpp>
#include <boost/thread/recursive_mutex.hpp>

#include <typeinfo>

#include "core/contract.h"
#include "core/thread_end.h"
#include "kestrel/threads.h"
#include "platform/timed_waits.h"
#include "threads/thread_support.h"

namespace kestrel {

struct WorkThread::StateMutex : detail::Annotated<boost::recursive_mutex> {};

struct WorkThread::StartBarrier : boost::barrier {
    StartBarrier() : boost::barrier(2) {}
};

struct WorkThread::Sleeper : platform::Sleeper {};

// One event as a wait sees it: tests the flag under the event's lock and,
// while the wait goes on, keeps the wait's sleeper registered with it.
class WorkThread::Watch {
  public:
    Watch(Event& event, platform::Sleeper& sleeper) : _event(event) { _entry.sleeper = &sleeper; }
    ~Watch() {
        if (_registered) {
            const detail::ScopedLock<Event::Mutex> lock(*_event._mutex);
            unregister();
        }
    }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    // True when the event is set: the signal is consumed when take is true
    // and the event is auto reset, and the registration ends. Otherwise the
    // sleeper stays registered (or is registered now) and false.
    bool test(bool take) {
        const detail::ScopedLock<Event::Mutex> lock(*_event._mutex);
        if (_event._signalled.load(std::memory_order_relaxed)) {
            if (take && !_event._manualReset) {
                _event._signalled.store(false, std::memory_order_relaxed);
            }
            unregister();
            return true;
        }
        if (!_registered) {
            detail::EventWatch*& first = _event._mutex->watches;
            _entry.prev = nullptr;
            _entry.next = first;
            if (first != nullptr) {
                first->prev = &_entry;
            }
            first = &_entry;
            _registered = true;
        }
        return false;
    }

  private:
    void unregister() KESTREL_REQUIRES(*_event._mutex) {
        if (!_registered) {
            return;
        }
        if (_entry.prev != nullptr) {
            _entry.prev->next = _entry.next;
        } else {
            _event._mutex->watches = _entry.next;
        }
        if (_entry.next != nullptr) {
            _entry.next->prev = _entry.prev;
        }
        _registered = false;
    }

    Event& _event;
    detail::EventWatch _entry;
    bool _registered = false;
};

WorkThread::WorkThread(Thread::ThreadPriority priority)
    : Thread(priority),
      _stateMutex(std::make_unique<StateMutex>()),
      _state(STOPPED),
      _startBarrier(std::make_unique<StartBarrier>()),
      _stopEvent(false, false),
      _sleeper(std::make_unique<Sleeper>()) {
    setThreadName("kestrel-work");
}

namespace {

#if KESTREL_CONTRACT_CHECKS
// The work thread whose run() this thread executes, if any: the checks that
// an owner's operation is not called from the work thread look here.
thread_local const WorkThread* tCurrentWorkThread = nullptr;
#endif

}  // namespace

namespace detail {

bool isCurrentWorkThread(const WorkThread* thread) {
#if KESTREL_CONTRACT_CHECKS
    return tCurrentWorkThread == thread;
#else
    static_cast<void>(thread);
    return false;
#endif
}

}  // namespace detail

WorkThread::~WorkThread() {
    // By now the subclass's part is gone: a work thread that still runs calls
    // hooks that no longer exist. (The run loop watches for the same moment
    // from the other side.)
    KESTREL_EXPECTS(getState() == STOPPED,
                    "WorkThread destroyed while its thread is running: call stop() in the "
                    "destructor of your subclass (see kestrel/threads.h, WorkThread)");
}

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
    KESTREL_EXPECTS(!detail::isCurrentWorkThread(this),
                    "WorkThread::stop() called on the work thread itself, which cannot join "
                    "itself: stop it from its owner's thread (see kestrel/threads.h, WorkThread)");
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
    const detail::ScopedLock<StateMutex> lock(*_stateMutex);
    _state.store(state, std::memory_order_seq_cst);
}

void WorkThread::cleanup() {
    _stopEvent.reset();
    setState(STOPPED);
}

bool WorkThread::waitUntil(Event& event, std::int64_t deadlineNanoseconds) {
    Watch watch(event, *_sleeper);
    for (;;) {
        // A deadline that has passed still takes a signal that is there.
        if (watch.test(true)) {
            return true;
        }
        if (detail::waitClockNanoseconds() >= deadlineNanoseconds) {
            return false;
        }
        _sleeper->sleepUntil(deadlineNanoseconds);
    }
}

bool WorkThread::wait(Event& event) {
    Watch onEvent(event, *_sleeper);
    if (onEvent.test(true)) {
        return true;  // set already: nothing was registered
    }
    Watch onStop(_stopEvent, *_sleeper);
    for (;;) {
        if (onStop.test(false)) {
            // The event may have been set since it was tested: it still wins,
            // and the stop stays for the next wait. Only this thread takes
            // the stop signal, so it is still there.
            if (onEvent.test(true)) {
                return true;
            }
            if (onStop.test(true)) {
                return false;
            }
        }
        _sleeper->sleepUntil(platform::kNoDeadline);
        if (onEvent.test(true)) {
            return true;
        }
    }
}

bool WorkThread::wait(double seconds) {
    if (seconds == Thread::INFINITE_SECONDS) {
        _stopEvent.wait();
        return false;
    }
    // Bounded: zero, negative and NaN durations give a deadline that has
    // passed, huge ones about 31.7 years; none can overflow.
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
#if KESTREL_CONTRACT_CHECKS
    struct Current {
        explicit Current(const WorkThread* thread) { tCurrentWorkThread = thread; }
        ~Current() { tCurrentWorkThread = nullptr; }
        Current(const Current&) = delete;
        Current& operator=(const Current&) = delete;
    } current(this);
    // Once the owner has begun to destroy the object without stopping it,
    // its dynamic type is WorkThread itself and running() has no body left:
    // report that rather than crash in the call.
    const auto checkSubclassAlive = [this] {
        KESTREL_EXPECTS(typeid(*this) != typeid(WorkThread),
                        "WorkThread destroyed while its thread is running: call stop() in the "
                        "destructor of your subclass (see kestrel/threads.h, WorkThread)");
    };
#else
    const auto checkSubclassAlive = [] {};
#endif
    try {
        starting();
    }
    KESTREL_PASS_THREAD_END
    catch (...) {
        result = false;
    }
    rendezvous.pass();
    try {
        checkSubclassAlive();
        running();
        while (getState() != STOPPING) {
            checkSubclassAlive();
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
