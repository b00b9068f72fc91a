// Events and the machinery that hands them over. An event (IEvent) is a heap
// object that does one piece of work when it is executed; it may carry a
// reference-counted information record (IEventInfo). An event is either run at
// once on the calling thread or posted to an EventQueue, where a new event may
// replace (coalesce with) a queued one. Queues are processed by a dedicated
// EventThread, or, for the process-wide EventManager, by the thread that
// created the manager. EventInfoLog keeps the most recent loggable records.
//
// Ownership: events are handed over by plain pointer; whoever receives one
// destroys it. Never touch an event after handing it over.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <utility>

#include "kestrel/export.h"
#include "kestrel/threads.h"

namespace kestrel {

class EventInfoLog;
class EventManager;
class EventQueue;
class EventThread;
class IEvent;

namespace detail {

// A recursive mutex whose implementation stays inside the library.
class OpaqueMutex;

// Holds an OpaqueMutex locked from construction to destruction; the lock that
// a TLockingEnumerator carries.
//
// Thread safety: belongs to the thread that made it (the mutex is recursive).
// Lifetime: the mutex must outlive it; movable, not copyable.
// Errors: never throws.
class KESTREL_API OpaqueLock {
  public:
    // Locks mutex, waiting while another thread holds it.
    explicit OpaqueLock(OpaqueMutex& mutex);
    // Takes over other's lock; other then owns nothing.
    OpaqueLock(OpaqueLock&& other) noexcept;
    OpaqueLock(const OpaqueLock&) = delete;
    OpaqueLock& operator=(const OpaqueLock&) = delete;
    OpaqueLock& operator=(OpaqueLock&&) = delete;
    // Unlocks the mutex if this object still owns the lock.
    ~OpaqueLock();

  private:
    OpaqueMutex* _mutex;
    bool _owns;
};

}  // namespace detail

// The information record of an event: a type name, a loggable flag and an
// intrusive reference count. Derive your own information types from it.
//
// A record starts with one reference, held by the event it is given to, plus
// a second one when it is loggable, reserved for the EventInfoLog it will be
// appended to. A loggable record that never reaches a log is never destroyed.
// The record deletes itself when its count drops to 0; its destructor is
// protected so that nothing else deletes it.
//
// Thread safety: the reference count is a plain, non-atomic counter. It is
//   changed only by the thread that destroys the owning event and by an
//   EventInfoLog under its own lock; these must be otherwise synchronised.
// Lifetime: lives while it has references; not copyable.
// Errors: never throws (except std::bad_alloc from the constructor).
class KESTREL_API IEventInfo {
  public:
    // Copies typeName (a terminated string, not null). The count starts at 2
    // when loggable, else at 1.
    IEventInfo(const char* typeName, bool loggable);
    IEventInfo(const IEventInfo&) = delete;
    IEventInfo& operator=(const IEventInfo&) = delete;

    // The stored copy of the type name, valid while the record lives.
    const char* getEventTypeName() const;

  protected:
    virtual ~IEventInfo();

  private:
    friend class IEvent;
    friend class EventInfoLog;

    bool isLoggable() const;
    void addRef();
    // Drops one reference; deletes the record when none is left.
    void releaseRef();

    std::string _typeName;
    bool _loggable;
    std::uint64_t _refCount;
};

// Decides which queued event a new one replaces, or which events a flush
// removes. Runs under the queue's lock: it must not wait for anything that
// needs that queue.
//
// Thread safety: called on the posting or flushing thread.
// Lifetime: owned by the caller; only used during the call it is passed to.
// Errors: an exception it throws reaches the caller of the post or flush.
class KESTREL_API IMatchEventFcn {
  public:
    virtual ~IMatchEventFcn();
    // True when queuedEvent is the one to replace or flush.
    virtual bool operator()(IEvent* queuedEvent) const = 0;
};

// Lets the information of a new event absorb that of the queued event it
// replaces. Called only when both records exist, under the queue's lock.
//
// Thread safety: called on the posting thread.
// Lifetime: owned by the caller; only used during the call it is passed to.
// Errors: an exception it throws reaches the caller of the post.
class KESTREL_API IMergeEventInfoFcn {
  public:
    virtual ~IMergeEventInfoFcn();
    // newInfo belongs to the event being posted, queuedInfo to the queued event
    // that is about to be replaced and destroyed.
    virtual void operator()(IEventInfo* newInfo, IEventInfo* queuedInfo) const = 0;
};

// The base of every event. Create events with new and hand them over: every
// servicing or posting operation, here and on the queues, takes ownership and
// destroys the event once it has been executed, replaced, flushed or refused.
//
// Override isExecutable() to report that a queued event has become pointless
// (it is then destroyed instead of executed); override serviceEvent() or
// postEvent() and call serviceOrCoalesceEvent()/postOrCoalesceEvent() with
// your own function objects to coalesce; always provide execute().
//
// Thread safety: an event belongs to one thread at a time: its creator until
//   it is handed over, then the queue and whichever thread processes it.
// Lifetime: holds one reference to its information record and releases it
//   when destroyed. Not copyable.
// Errors: serviceEvent() passes on what execute() throws when it runs the
//   event at once (the event is destroyed all the same). Queues discard
//   exceptions from execute().
class KESTREL_API IEvent {
  public:
    // Takes over the caller's reference to info (null allowed).
    IEvent(IEventInfo* info = nullptr);
    IEvent(const IEvent&) = delete;
    IEvent& operator=(const IEvent&) = delete;
    // Releases the information record.
    virtual ~IEvent();

    // False when the event has become pointless and is to be destroyed
    // unexecuted. The default is true.
    virtual bool isExecutable() const;

    // Runs the event at once when serviceNow is true and the caller is the
    // event manager's processing thread, returning execute()'s result;
    // otherwise posts it to the event manager and returns true. A
    // non-executable event is destroyed and true returned. With no event
    // manager in existence the event is destroyed unexecuted and false is
    // returned.
    virtual bool serviceEvent(bool serviceNow);

    // Posts the event to thread (destroyed there if the thread is not running).
    virtual void postEvent(EventThread& thread);

    // The event's information record; no reference is added.
    IEventInfo* getEventInfo() const;

    // Removes the queued events of thread that match accepts and destroys them
    // unexecuted.
    static void flushEvents(EventThread& thread, const IMatchEventFcn& match);
    // Removes the events of the event manager's queue that match accepts;
    // executes them on the calling thread first when service is true. Does
    // nothing when there is no event manager.
    static void flushEvents(const IMatchEventFcn& match, bool service);

  protected:
    // serviceEvent() with coalescing: a posted event replaces the first queued
    // event that match accepts, after merge has combined their information.
    bool serviceOrCoalesceEvent(bool serviceNow, const IMatchEventFcn* match,
                                const IMergeEventInfoFcn* merge);
    // postEvent() with coalescing.
    void postOrCoalesceEvent(EventThread& thread, const IMatchEventFcn* match,
                             const IMergeEventInfoFcn* merge);

    // The event's work. The result is reported by direct servicing only.
    virtual bool execute() = 0;

  private:
    friend class EventQueue;

    IEventInfo* _eventInfo;
};

// An ordered store of owned events with coalescing, flushing and bounded
// processing passes. It tells its handler when it has events to process, so
// that the owner can arrange a processEvents() call on its processing thread.
//
// Coalescing: postEvent() with a match object puts the new event in place of
// the first queued event that match accepts (merge combines their records
// when both exist) and destroys the queued one, without notification.
// Notification: the handler hears once when the queue goes from empty to
// non-empty outside a pass, and at the end of every pass that leaves events.
// A pass serves at most the events queued when it began; passes never nest.
//
// Thread safety: any thread may post, flush, process and ask
//   isProcessingThread(). One recursive lock guards the queue. Under it run:
//   match and merge objects, the destructors of replaced events, the
//   handler's notification and, in the destructor, the destructors of queued
//   events. execute() and the destruction of served and flushed events run
//   without it.
// Lifetime: owns its events and its handler; destroying the queue destroys
//   the queued events unexecuted, then the handler. Not copyable.
// Errors: exceptions from execute() are discarded. An exception from match or
//   merge reaches the caller: the event being posted is destroyed unqueued
//   (the queue is unchanged), and events a flush had already removed are
//   destroyed unexecuted.
class KESTREL_API EventQueue {
  public:
    // How a queue reaches its owner.
    //
    // Thread safety: called on posting threads and on the processing thread,
    //   with the queue's lock held; it must only arrange a later
    //   processEvents() call, never wait for one, and should not throw.
    // Lifetime: owned and destroyed by the queue it is given to.
    // Errors: an exception it throws reaches the poster or the processor.
    class KESTREL_API IEventQueueHandler {
      public:
        virtual ~IEventQueueHandler();
        // eventCount (at least 1) events wait to be processed.
        virtual void notifyEventsToProcess(std::size_t eventCount) const = 0;
    };

    // Takes ownership of handler (null allowed). An empty isProcessingThread
    // makes the constructing thread the processing thread.
    EventQueue(const IEventQueueHandler* const handler, std::function<bool()>&& isProcessingThread);
    EventQueue(const EventQueue&) = delete;
    EventQueue& operator=(const EventQueue&) = delete;
    ~EventQueue();

    // Queues event (ignored when null), coalescing as described above.
    void postEvent(IEvent* const event, const IMatchEventFcn* const match,
                   const IMergeEventInfoFcn* const merge);
    // Removes every queued event that match accepts, in queue order; executes
    // them on the calling thread when service is true; destroys them.
    void flushEvents(const IMatchEventFcn& match, bool service);
    // One pass over the events queued now, on the calling thread. Returns at
    // once when a pass is already running.
    void processEvents();
    // True on the queue's processing thread (the test given to the
    // constructor, or the constructing thread).
    bool isProcessingThread() const;

    // What became of the events handed to a queue since it was made. Every
    // event given to postEvent() (null ones aside) counts once in posted and,
    // once it has left the queue, once in exactly one of executed, coalesced
    // and discarded; so posted equals executed + coalesced + discarded + the
    // events still queued or being served. flushed counts again those of the
    // departed events that a flush removed.
    struct Counters {
        // Events given to postEvent(), whether appended, put in place of a
        // queued event, or refused because a match or merge object threw.
        std::uint64_t posted = 0;
        // Events whose execute() was called by a pass or a servicing flush
        // (also when it threw), counted once the call has returned.
        std::uint64_t executed = 0;
        // Queued events replaced by a coalescing post and destroyed.
        std::uint64_t coalesced = 0;
        // Events removed by flushEvents(), served or not.
        std::uint64_t flushed = 0;
        // Events destroyed without being executed, other than by coalescing:
        // removed by a flush without service, found not executable by a pass
        // or a servicing flush, refused by a post whose match or merge object
        // threw, or still queued when the queue was destroyed.
        std::uint64_t discarded = 0;
    };
    // The counts so far. Takes no lock: any thread may call it at any time,
    // also from code that runs under the queue's lock. A reading taken while
    // events flow may miss the latest changes, but never shows an event
    // leaving the queue without its post: posted is at least executed +
    // coalesced + discarded.
    Counters getCounters() const;

  private:
    // The queued events in arrival order: a ring over one array, so that
    // appending, popping the head and reading by position allocate nothing
    // once the array has grown to the queue's longest length, and a
    // coalescing post replaces an entry in place.
    class EventList {
      public:
        EventList() = default;
        EventList(const EventList&) = delete;
        EventList& operator=(const EventList&) = delete;
        ~EventList();

        std::size_t size() const { return _size; }
        bool empty() const { return _size == 0; }
        // The event at position at (0: the head); at < size().
        IEvent*& operator[](std::size_t at) { return _slots[(_head + at) & _mask]; }
        IEvent* operator[](std::size_t at) const { return _slots[(_head + at) & _mask]; }
        // Appends event; throws std::bad_alloc when the array cannot grow.
        void push_back(IEvent* event);
        // Unlinks and returns the head; the list must not be empty.
        IEvent* pop_front();
        // The position of event, or size() when it is not queued.
        std::size_t find(const IEvent* event) const;
        // Unlinks every event for which remove(event) is true, keeping the
        // order of the others.
        template <typename Predicate>
        void removeIf(Predicate remove);
        // Puts event at position at (< size()) in place of the event there.
        void replace(std::size_t at, IEvent* event) {
            (*this)[at] = event;
            ++_moves;
        }
        // Changes with every pop, replacement and removal, which move events
        // to other positions or out of the list, and when the array grows
        // (appends move nothing else): a walk that calls caller code learns
        // from it whether the position it stands on still holds the event it
        // asked about, and whether its view of the array still holds.
        std::size_t moves() const { return _moves; }
        // The array as it stands, for reading by position: valid until
        // moves() changes.
        struct View {
            IEvent* const* slots;
            std::size_t head;
            std::size_t mask;
            IEvent* operator[](std::size_t at) const { return slots[(head + at) & mask]; }
        };
        View view() const { return View{_slots, _head, _mask}; }

      private:
        void grow();

        IEvent** _slots = nullptr;
        std::size_t _mask = 0;  // capacity - 1; the capacity is a power of two (or 0)
        std::size_t _head = 0;
        std::size_t _size = 0;
        std::size_t _moves = 0;
    };
    enum EventAction : std::int32_t { EVENT_POSTED = 1, EVENTS_PROCESSED = 2 };
    // A count that only the holder of the queue's lock changes, and that any
    // thread may read without it.
    class Count {
      public:
        void add(std::uint64_t n) {
            _value.store(_value.load(std::memory_order_relaxed) + n, std::memory_order_release);
        }
        std::uint64_t get() const { return _value.load(std::memory_order_acquire); }

      private:
        std::atomic<std::uint64_t> _value{0};
    };
    // What happens to one event of a pass or a servicing flush, counted in
    // batches under the lock the queue takes anyway.
    struct Outcomes {
        std::uint64_t executed = 0;
        std::uint64_t discarded = 0;
    };
    friend class EventThread;

    void processEvents(std::size_t maxEvents);
    // Records outcomes (and clears it) under the same lock; when the queue is
    // empty, ends the pass there and returns null.
    IEvent* popEventOrEndPass(Outcomes& outcomes);
    std::size_t getMatchingEvent(const IMatchEventFcn& match);
    void notifyIfEventsToProcess(EventAction action);
    // Counts the event in outcomes as executed or discarded.
    void processEvent(std::unique_ptr<IEvent>& event, Outcomes& outcomes);
    std::size_t getEventCount() const;
    EventList& getEventList();
    // Adds outcomes to the counts; the caller holds the lock.
    void record(const Outcomes& outcomes);
    // Destroys the queued events unexecuted (counted in discarded).
    void discardQueued();

    std::unique_ptr<detail::OpaqueMutex> _mutex;
    EventList _events;  // guarded by _mutex
    std::unique_ptr<const IEventQueueHandler> _handler;
    bool _processing;  // guarded by _mutex
    std::function<bool()> _isProcessingThread;
    // Changed under _mutex, read by getCounters() without it.
    Count _posted;
    Count _executed;
    Count _coalesced;
    Count _flushed;
    Count _discarded;
};

// The process-wide event queue of one thread, the one that creates it. Other
// threads post to it; the creator's handler learns when there is work and the
// creator then calls processEvents() on its own thread.
//
// Thread safety: createInstance() and destroyInstance() run on one thread
//   while no other thread uses the manager; a call of either on another thread
//   than the processing thread of an existing instance is checked in debug
//   builds (see kestrel/threads.h). postEvent(), flushEvents() and
//   isProcessingThread() may be called from any thread while it exists;
//   processEvents() belongs to the processing thread.
// Lifetime: exists from createInstance() to destroyInstance(); nothing
//   destroys it automatically.
// Errors: as EventQueue.
class KESTREL_API EventManager {
  public:
    // The existing instance (handler is then left to the caller), or a new
    // one that owns handler and whose processing thread is the caller.
    static EventManager* createInstance(const EventQueue::IEventQueueHandler* const handler);
    // The instance, or null.
    static EventManager* getInstance();
    // Destroys the instance, its queued events unexecuted, and its handler.
    static void destroyInstance();

    EventManager(const EventManager&) = delete;
    EventManager& operator=(const EventManager&) = delete;

    // Queues event on the manager's queue, as EventQueue::postEvent().
    void postEvent(IEvent* const event, const IMatchEventFcn* const match,
                   const IMergeEventInfoFcn* const merge);
    // As EventQueue::flushEvents(); served events run on the calling thread.
    void flushEvents(const IMatchEventFcn& match, bool service);
    // One pass over the queued events; call it on the processing thread.
    void processEvents();
    // True on the thread that created the manager.
    bool isProcessingThread() const;
    // The counts of the manager's queue, as EventQueue::getCounters().
    EventQueue::Counters getCounters() const;

  private:
    EventManager(const EventQueue::IEventQueueHandler* const handler);
    ~EventManager();

    std::unique_ptr<EventQueue> _eventQueue;

    static EventManager* _singleton;
};

// A worker thread that executes the events posted to it, in arrival order and
// with coalescing, on its own thread. Any thread may post to it or flush it;
// posts made while it is not running destroy the event unexecuted. Its queue
// exists from the start to the stop of the thread: every start begins with an
// empty queue.
//
// At a stop the thread first drains what its wake-up shows it (new posts are
// refused once the stop is requested); the StopProcessingMode decides about
// events that are still queued when the wait loop ends: PROCESS_PENDING_EVENTS
// runs one more pass over them, any other value destroys them unexecuted.
//
// A post or flush that has found the thread running is waited for by a
// concurrent stop(), which destroys the queue only once it is done. Match and
// merge objects and the destructors of replaced or flushed events therefore
// must not wait for this thread.
//
// Thread safety: start(), stop(), setThreadName() and destruction belong to
//   one owner thread (never the event thread; stop() there is checked in debug
//   builds); postEvent(), flushEvents() and isRunning() may be called from any
//   thread, also from events executing on this thread.
// Lifetime: the destructor stops the thread, honouring the stop mode, and
//   destroys what is left. Not copyable.
// Errors: start() returns false when no thread can be created; exceptions from
//   events are discarded; exceptions from match or merge objects reach the
//   poster or flusher as described for EventQueue.
class KESTREL_API EventThread : protected WorkThread {
  public:
    // What a stop does with the events still queued.
    enum StopProcessingMode : std::int32_t {
        DISCARD_PENDING_EVENTS = 0,  // any value other than 1 behaves like this one
        PROCESS_PENDING_EVENTS = 1
    };

    // A stopped event thread whose stops treat queued events as mode says.
    EventThread(StopProcessingMode mode = DISCARD_PENDING_EVENTS);
    ~EventThread() override;

    // Starts the thread; returns once its queue exists.
    bool start();
    // Stops the thread and returns once it has ended; always true.
    bool stop();
    // True while the thread runs and accepts posts.
    bool isRunning() const;
    // The name of the event thread (see Thread in kestrel/threads.h);
    // "kestrel-event" by default.
    using WorkThread::getThreadName;
    using WorkThread::setThreadName;

    // Queues event, coalescing as EventQueue::postEvent() does, when the
    // thread is running; otherwise destroys it unexecuted.
    void postEvent(IEvent* const event, const IMatchEventFcn* const match,
                   const IMergeEventInfoFcn* const merge);
    // Removes the queued events that match accepts and destroys them
    // unexecuted on the calling thread; does nothing unless running.
    void flushEvents(const IMatchEventFcn& match);

    // The counts of EventQueue::Counters over every run of the thread: the
    // queue of each run (its events still queued at the stop count as
    // discarded), plus the posts made while the thread was not running,
    // which count as posted and discarded.
    using Counters = EventQueue::Counters;
    // The counts so far. Any thread may call it, also code that runs under
    // the queue's lock; it waits only while the thread creates or destroys
    // its queue (so not from an event's destructor that waits for a thread
    // calling it).
    Counters getCounters() const;

  private:
    class EventQueueHandler;

    void starting() override;
    void running() override;
    void stopping() override;
    EventQueue* getEventQueue() const;

    class PostInProgress;

    const StopProcessingMode _stopProcessingMode;
    std::unique_ptr<detail::OpaqueMutex> _mutex;
    // Set under _mutex, by this thread only; other threads use it while they
    // count in _posting and see the state RUNNING.
    std::unique_ptr<EventQueue> _eventQueue;
    Event _wakeEvent;  // auto reset; signalled for the queue's handler
    // Posts and flushes that may use the queue; stopping() waits until none
    // is left before it destroys the queue.
    //
    // Every post writes this count and reads the flag below, so the two have
    // a cache line of their own: the event thread writes _wakeEvent's flag
    // on every pass and would otherwise take that line from each post.
    alignas(64) std::atomic<int> _posting;
    // Whether the queue's handler asked for a wake-up that is still to be
    // given (the thread that made the call which notified gives it once it
    // has left the queue's lock), or the thread watches for posts and takes
    // such a request itself (see event_thread.cpp).
    std::atomic<int> _wakePending;
    // The counts of the queues of earlier runs; guarded by _mutex.
    Counters _pastCounters;
    // Posts refused because the thread was not running.
    std::atomic<std::uint64_t> _refused;
};

// A read cursor over a container that holds the container owner's lock for
// its whole life, so the container cannot change while it exists. Visits the
// elements from first to last:
//   for (; !e->isAtEnd(); e->next()) use(e->getCurrent());
//
// Thread safety: use it on the thread that created it; every other thread
//   that uses the owner waits until it is destroyed, so destroy it promptly.
// Lifetime: the elements it shows stay valid while it exists. Not copyable.
// Errors: never throws.
template <typename Container>
class TLockingEnumerator {
  public:
    // The element type; getCurrent() returns value_type() at the end.
    using value_type = typename Container::value_type;

    // Takes over lock, which must guard container.
    TLockingEnumerator(detail::OpaqueLock&& lock, const Container& container)
        : _lock(std::move(lock)),
          _count(container.size()),
          _first(container.begin()),
          _end(container.end()),
          _current(_first) {}
    TLockingEnumerator(const TLockingEnumerator&) = delete;
    TLockingEnumerator& operator=(const TLockingEnumerator&) = delete;

    // The number of elements.
    std::size_t getCount() const { return _count; }
    // True when the cursor has passed the last element.
    bool isAtEnd() const { return _current == _end; }
    // The element under the cursor; value_type() once at the end.
    value_type getCurrent() const { return isAtEnd() ? value_type() : *_current; }
    // Advances the cursor; does nothing at the end.
    void next() {
        if (!isAtEnd()) {
            ++_current;
        }
    }
    // Moves the cursor back to the first element.
    void reset() { _current = _first; }

  private:
    using Position = typename Container::const_iterator;

    detail::OpaqueLock _lock;
    std::size_t _count;
    Position _first;
    Position _end;
    Position _current;
};

// Keeps the most recent loggable information records, up to a limit, dropping
// the oldest first. Each kept entry holds the reference that a loggable record
// reserves for a log; the log releases it when it drops the entry.
//
// Limits: NO_LIMIT (-1) means 2147483647; 0 turns logging off (appended
// records give back their reserved reference at once); any other negative
// limit is taken as 0.
//
// Thread safety: every operation takes the log's recursive lock; the records'
//   destructors run under it. A TLockingEnumerator holds the lock while it
//   exists, and the holding thread may still call the log.
// Lifetime: destroying the log releases every kept record. Not copyable.
// Errors: never throws (except std::bad_alloc); a record that is not loggable
//   is ignored.
class KESTREL_API EventInfoLog {
  public:
    // The limit that means no limit (2147483647 entries).
    static constexpr int NO_LIMIT = -1;

    // An empty log with the limit maxToLog, as setMaxToLog() takes it.
    EventInfoLog(int maxToLog = NO_LIMIT);
    EventInfoLog(const EventInfoLog&) = delete;
    EventInfoLog& operator=(const EventInfoLog&) = delete;
    virtual ~EventInfoLog();

    // Keeps info, a loggable record, taking over its reserved reference and
    // dropping the oldest entry when the log is full.
    void append(IEventInfo* const info);
    // Releases every kept record; the limit stays.
    void clear();
    // The limit; 2147483647 for NO_LIMIT.
    int getMaxToLog() const;
    // Drops the oldest entries above the new limit.
    void setMaxToLog(int maxToLog);
    // The number of kept records.
    int getNumberLogged() const;
    // True when the number of kept records equals the limit (so always with
    // a limit of 0).
    bool isLogFull() const;
    // A cursor over the kept records, oldest first, holding the log's lock
    // until the caller deletes it.
    TLockingEnumerator<std::list<IEventInfo*>>* getLockingEnumerator() const;

  private:
    void clearOldest();
    int getMaxOfContainer() const;

    std::unique_ptr<detail::OpaqueMutex> _mutex;
    std::list<IEventInfo*> _log;  // guarded by _mutex
    int _maxToLog;                // guarded by _mutex
};

}  // namespace kestrel
