// Threads with a managed life cycle. Derive from WorkThread for a long-lived
// thread that prepares itself (starting), works in passes (running) until its
// owner stops it, and cleans up (stopping); derive from TimerThread for a
// periodic action. An Event is a flag that threads wait on; to hand data
// across threads, post an event to an EventThread instead.
//
// Rules marked "checked in debug builds" below are tested by builds without
// NDEBUG (or configured with KESTREL_CONTRACT_CHECKS=ON): a caller that
// breaks one gets a line on the standard error stream that says what was done
// wrong and where the rule is documented, and the process aborts. Other
// builds do not test them; breaking them there is undefined.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>

// The identifier type of Thread::getID() is the threading library's own.
#include <boost/thread/thread_only.hpp>

#include "kestrel/export.h"
#include "kestrel/time.h"

namespace kestrel {

class WorkThread;

// The base thread object. A subclass supplies run(); start() creates one
// operating-system thread that executes it and returns only once the new
// thread has begun; join() waits for it to end and makes the object startable
// again. The priority is applied each time the thread starts: HIGH_PRIORITY
// and LOW_PRIORITY move the new thread two steps above or below the priority
// it was created with; a refusal by the system is ignored and the thread then
// keeps its priority.
//
// Each thread carries a name that debuggers, profilers and system tools (top
// -H, ps, the Windows debuggers) show: "kestrel-thread" unless changed with
// setThreadName(); WorkThread, TimerThread and EventThread start with
// "kestrel-work", "kestrel-timer" and "kestrel-event". The name is UTF-8 text;
// the new thread gives it to itself as it starts. Linux keeps 15 bytes of it,
// so a longer name is cut there, at a character boundary; Windows keeps the
// whole name, where the system offers thread names (Windows 10 1607 and
// later; elsewhere the name is not shown).
//
// Thread safety: start(), join(), isActive(), setThreadName() and
//   getThreadName() belong to one controlling thread and take no lock; the
//   static helpers may be called from any thread. join() on the thread itself
//   is checked in debug builds.
// Lifetime: the destructor neither stops nor joins; join() before destroying
//   an object whose thread was started (checked in debug builds). Not
//   copyable.
// Errors: start() returns false when no thread can be created; exceptions that
//   leave run() are caught on the new thread and never reported.
class KESTREL_API Thread {
  public:
    // The priority a thread is started with, relative to the creator's.
    enum ThreadPriority : std::int32_t {
        LOW_PRIORITY = 0,
        NORMAL_PRIORITY = 1,  // any other value behaves like this one
        HIGH_PRIORITY = 2
    };

    // A duration without a time limit.
    static constexpr double INFINITE_SECONDS = std::numeric_limits<double>::infinity();

    // An inactive thread object that will start its threads at priority.
    Thread(ThreadPriority priority = NORMAL_PRIORITY);
    virtual ~Thread();
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    // Starts a thread that calls run(). True once the new thread has begun, or
    // at once when the object is already active (no second thread is made);
    // false when the system refuses to create a thread.
    bool start();
    // Blocks until the thread has ended and makes the object inactive; does
    // nothing when it is not active.
    void join();
    // True from a successful start() until join(), also after run() returned.
    bool isActive() const;

    // The name that the next start() gives its thread; a thread that runs
    // keeps the name it started with. An empty name leaves the thread with
    // the name the system gives it (on Linux, that of the starting thread).
    void setThreadName(const std::string& name);
    std::string getThreadName() const;

    // The number of hardware threads, 0 when unknown.
    static std::size_t getNumCores();
    // Blocks the calling thread for seconds, rounded to whole microseconds
    // (4e-7 rounds down to 0, 5e-7 up to 1 us). Zero, negative and NaN return
    // at once; INFINITE_SECONDS blocks for about 31.7 years.
    static void sleep(double seconds);
    // Gives up the rest of the calling thread's time slice.
    static void yield();

  protected:
    // The threading library's identifier of the thread of the current start,
    // for comparison with boost::this_thread::get_id(); the default
    // (not-a-thread) identifier when there is none (never started, or
    // joined). Called by the subclass, from any thread that does not race
    // with start() or join().
    boost::thread::id getID() const;

  private:
    // The thread's body, called on the new thread.
    virtual bool run() = 0;

    class ThreadImpl;
    std::unique_ptr<ThreadImpl> _impl;
};

// A synchronisation event: a flag one thread sets with signal() and others
// wait for. An auto-reset event releases one waiter per signal and clears
// itself; a manual-reset event releases every waiter and stays set until
// reset(). It is a flag, not a counter: a signal given while the event is
// already set is not counted. What a thread did before signal() is visible to
// the waiter whose wait() that signal ends.
//
// Thread safety: signal(), reset() and wait() may be called from any thread,
//   concurrently.
// Lifetime: the event must outlive every call on it. signal() touches the
//   event after releasing a waiter, so a waiter may destroy the event only once
//   it knows the signalling call has returned. The destructor releases nobody.
// Errors: never throws (except std::bad_alloc from the constructor).
class KESTREL_API Event {
  public:
    // An auto-reset event unless manualReset; set from the start when
    // initialState is true.
    Event(bool manualReset = false, bool initialState = false);
    ~Event();
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;

    // Sets the event and wakes one waiter (auto reset) or all (manual reset).
    void signal();
    // Clears the event; wakes nobody.
    void reset();
    // Blocks until the event is set; an auto-reset event is cleared on the way
    // out. There is no time limit: bounded waits are WorkThread's.
    void wait();

  private:
    // WorkThread's timed waits work on the flag and its lock directly.
    friend class WorkThread;

    struct Mutex;
    struct Condition;

    std::unique_ptr<Mutex> _mutex;
    // Where wait() sleeps, having found the flag clear under _mutex; signal()
    // wakes it there. (The WorkThread waits that signal() must wake are
    // listed with _mutex.)
    std::unique_ptr<Condition> _condition;
    const bool _manualReset;
    // Read and written under _mutex.
    std::atomic<bool> _signalled KESTREL_GUARDED_MEMBER(*_mutex);
};

// A thread with a managed life cycle. The owner calls start() and stop(); the
// work thread runs starting() once, running() over and over until stop() is
// called, then stopping() once. start() returns after starting() is over;
// stop() wakes the waits below, joins the thread and returns after
// stopping(). A subclass overrides the hooks as private operations.
//
// The waits are the work thread's tools. wait(Event&) returns true when the
// event is set (the event is tested first, so it wins over a pending stop)
// and false when a stop was requested; wait(double) returns true when the time
// ran out and false when a stop was requested. A false result consumes the
// stop request: the pass should then return promptly, as a further wait would
// not see it again (isStopping() still reports it). A zero or negative time
// gives false at once when a stop is pending and true otherwise;
// INFINITE_SECONDS waits for the stop alone.
//
// An exception from starting() or stopping() is swallowed; one from running()
// ends the loop, stopping() still runs, and the state stays RUNNING until the
// owner calls stop().
//
// Thread safety: start(), stop(), setThreadName() and the destructor belong to
//   one owner thread, never the work thread (stop() there is checked in debug
//   builds); isActive() and isRunning() may be called from any thread.
// Lifetime: the destructor neither stops nor joins: a subclass calls stop() in
//   its own destructor, while its hooks still exist. A WorkThread destroyed
//   in another state than STOPPED is checked in debug builds. Not copyable.
// Errors: start() returns false only when no thread can be created; stop()
//   always returns true; nothing is thrown to the owner.
class KESTREL_API WorkThread : protected Thread {
  public:
    // The life cycle: STOPPED -> STARTING (start() until starting() is over)
    // -> RUNNING -> STOPPING (stop() until the thread has ended) -> STOPPED.
    enum ThreadState : std::int32_t { STOPPED = 0, STARTING = 1, RUNNING = 2, STOPPING = 3 };

    // A stopped work thread that will run at priority.
    WorkThread(Thread::ThreadPriority priority = Thread::NORMAL_PRIORITY);
    ~WorkThread() override;

    // Starts the work thread and returns once starting() is over. True also
    // when the state was not STOPPED (nothing is done then).
    bool start();
    // Requests a stop, wakes the work thread, joins it and returns in state
    // STOPPED. Always true, also when nothing was started.
    bool stop();
    // True when the state is not STOPPED.
    bool isActive() const;
    // True when the state is RUNNING.
    bool isRunning() const;
    // The name of the work thread (see Thread); "kestrel-work" by default.
    using Thread::getThreadName;
    using Thread::setThreadName;

  protected:
    // True when the state is STOPPING: a stop was requested and the thread
    // has not ended yet. Lets a long pass notice a stop between its waits.
    bool isStopping() const;
    // The current state; by the time the caller looks, it may have moved on.
    ThreadState getState() const;

    // Waits for event or a stop request, in one blocking wait on both: the
    // thread sleeps until one of them is signalled and notices a stop at
    // once. True: event was set (and cleared when it is auto reset). False: a
    // stop was requested.
    bool wait(Event& event);
    // Waits for seconds (rounded to whole microseconds) or a stop request.
    // True: the time ran out. False: a stop was requested.
    bool wait(double seconds);

  private:
    bool run() override;
    virtual void starting();
    virtual void running() = 0;
    virtual void stopping();

    void setState(ThreadState state);
    // Clears the stop event and returns to STOPPED.
    void cleanup();

    // Timed wait on an event until a steady-clock deadline in nanoseconds; a
    // flag that is already set, or set at the deadline, counts as success.
    bool waitUntil(Event& event, std::int64_t deadlineNanoseconds);

    struct StateMutex;
    struct StartBarrier;
    struct Sleeper;
    class Watch;

    std::unique_ptr<StateMutex> _stateMutex;
    // Written under _stateMutex; read without it, so that the frequent
    // state checks (every post to an EventThread) cost no lock.
    std::atomic<ThreadState> _state;
    std::unique_ptr<StartBarrier> _startBarrier;
    Event _stopEvent;  // auto reset
    // Where the work thread sleeps in its waits; the events it waits on wake
    // it.
    std::unique_ptr<Sleeper> _sleeper;
};

// A work thread that calls executing() once per period, at HIGH_PRIORITY. The
// first execution comes one period after the start. FIXED_RATE keeps the
// executions on the grid start + k * period and, after an overrun, runs the
// missed ones without pause until it has caught up; FIXED_DELAY waits one
// period after each execution returns. Each execution happens half a
// millisecond after its due time, and the count already includes the
// execution in progress. A stop ends the wait for the next execution at once;
// an execution in progress runs to its end. To be on time, the timer thread
// asks the system for precise timed waits; it sleeps until each due time in
// one wait and never watches the clock.
//
// Thread safety: construction, start(), stop(), setPeriod(), setThreadName()
//   and destruction belong to one owner thread, never executing() (stop() and
//   setPeriod() on the timer thread are checked in debug builds); the getters
//   may be called from any thread.
// Lifetime: the destructor stops the thread, but a subclass must call stop()
//   in its own destructor so that executing() never runs on a partly
//   destroyed object (checked in debug builds). Not copyable.
// Errors: start() returns false when no thread can be created; an exception
//   from executing() ends the executions (the state stays RUNNING until
//   stop()); nothing is thrown to the owner.
class KESTREL_API TimerThread : protected WorkThread {
  public:
    // How the executions are spaced (see the class comment).
    enum ExecutionMode : std::int32_t {
        FIXED_RATE = 0,  // any value other than FIXED_DELAY behaves like this one
        FIXED_DELAY = 1
    };

    // A period that setPeriod() refuses leaves the period at 1.0 seconds.
    TimerThread(ExecutionMode mode = FIXED_RATE, double period = 1.0);
    ~TimerThread() override;

    // WorkThread's start() and stop(), offered as the timer's own (so that
    // &TimerThread::start is a member of TimerThread).
    bool start();
    bool stop();
    // The name of the timer thread (see Thread); "kestrel-timer" by default.
    using WorkThread::getThreadName;
    using WorkThread::setThreadName;

    // Seconds between executions. Zero, negative, NaN and infinite periods
    // are ignored. A running timer is stopped and started again with the new
    // period, keeping its start time, count and schedule: in FIXED_RATE the
    // next execution is due at the last scheduled time plus the new period.
    void setPeriod(double period);
    double getPeriod() const;
    // Executions since the last fresh start (start() after stop(), or the
    // first start); 0 before the first start.
    int getExecutions() const;
    // The time of the last fresh start; the construction time before it.
    Timestamp getStartTime() const;
    // The scheduled time of the most recent execution; the start time before
    // the first one.
    Timestamp getExecutionTime() const;

  protected:
    // Blocks the timer thread until a stop is requested, consuming it.
    void waitUntilStop();

  private:
    void starting() override;
    void running() override;
    // The periodic action, called on the timer thread.
    virtual void executing() = 0;

    // Resets the count and the schedule to now, unless setPeriod() restarts.
    void initExecution();
    void setExecutionTime(Timestamp t);
    void incrementExecutions();

    struct Mutex;

    std::unique_ptr<Mutex> _mutex;
    const ExecutionMode _mode;
    double _period KESTREL_GUARDED_MEMBER(*_mutex);
    int _executions KESTREL_GUARDED_MEMBER(*_mutex);
    Timestamp _startTime KESTREL_GUARDED_MEMBER(*_mutex);
    Timestamp _executionTime KESTREL_GUARDED_MEMBER(*_mutex);
    bool _restarting;  // set by setPeriod() around its restart
};

}  // namespace kestrel
