#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <thread>
#include <utility>

#include "events/opaque_mutex.h"
#include "kestrel/events.h"
#include "platform/timed_waits.h"

namespace kestrel {

namespace {

// The states of the thread's wake-up request (_wakePending).
constexpr int kNoWake = 0;
// The queue asked for a wake-up; the thread that made the queue call gives it
// once it has left the queue's lock.
constexpr int kWakePending = 1;
// The event thread has just emptied its queue and watches for a post before
// it sleeps.
constexpr int kWatching = 2;
// The queue asked for a wake-up while the event thread watched: the watch
// takes it, and nobody signals.
constexpr int kWakeHanded = 3;

}  // namespace

// Asks for a wake-up of the event thread whenever its queue has events to
// process. The queue calls it under its lock; a signal given there would wake
// the thread only to block it at once on that lock, so the handler just notes
// the request, and the thread that made the queue call signals once it has
// left the lock (see PostInProgress and running()), unless the event thread
// is watching for posts and takes the request itself.
class EventThread::EventQueueHandler : public EventQueue::IEventQueueHandler {
  public:
    EventQueueHandler(Event* wakeEvent, std::atomic<int>* wakePending)
        : _wakeEvent(wakeEvent), _wakePending(wakePending) {
        _wakeEvent->reset();
    }
    void notifyEventsToProcess(std::size_t /*eventCount*/) const override {
        int state = _wakePending->load(std::memory_order_relaxed);
        for (;;) {
            if (state == kWakePending || state == kWakeHanded) {
                return;  // asked already
            }
            const int next = state == kWatching ? kWakeHanded : kWakePending;
            if (_wakePending->compare_exchange_weak(state, next, std::memory_order_acq_rel)) {
                return;
            }
        }
    }
    // Gives the wake-up that a call of the queue asked for, if any.
    static void wakeIfPending(Event& wakeEvent, std::atomic<int>& wakePending) {
        int state = kWakePending;
        if (wakePending.load(std::memory_order_relaxed) == kWakePending &&
            wakePending.compare_exchange_strong(state, kNoWake, std::memory_order_acq_rel)) {
            wakeEvent.signal();
        }
    }

  private:
    Event* _wakeEvent;
    std::atomic<int>* _wakePending;
};

namespace {

// Set in the count of posts in progress while a thread waits for it to reach
// zero: the post that brings it there then wakes the waiter.
constexpr int kDrainWaiter = 1 << 30;

// Waits until no post or flush counted in posting is under way, blocking
// until the last one wakes it. Called once the state has left RUNNING: the
// posts it waits for are short, and new ones refuse without touching the
// queue.
void awaitPostsInProgress(std::atomic<int>& posting) {
    int count = posting.load(std::memory_order_acquire);
    while ((count & ~kDrainWaiter) != 0) {
        if ((count & kDrainWaiter) == 0) {
            if (!posting.compare_exchange_weak(count, count | kDrainWaiter,
                                               std::memory_order_acq_rel)) {
                continue;
            }
            count |= kDrainWaiter;
        }
        platform::waitOnWord(posting, count);
        count = posting.load(std::memory_order_acquire);
    }
}

EventQueue::Counters addCounters(EventQueue::Counters sum, const EventQueue::Counters& more) {
    sum.posted += more.posted;
    sum.executed += more.executed;
    sum.coalesced += more.coalesced;
    sum.flushed += more.flushed;
    sum.discarded += more.discarded;
    return sum;
}

}  // namespace

// Brackets a post or flush from any thread: counts it in _posting, so that
// stopping() keeps the queue until it is done, and gives the wake-up the
// queue asked for before it stops counting. Leaving the count is the last
// thing a post does to the thread object: a stop may return, and the owner
// destroy the thread, the moment the count reaches zero.
class EventThread::PostInProgress {
  public:
    explicit PostInProgress(EventThread& thread) : _thread(thread) {
        // Counted before the state is read: stopping() runs after the state
        // has left RUNNING, so it sees every post that still saw RUNNING.
        _thread._posting.fetch_add(1, std::memory_order_seq_cst);
    }
    ~PostInProgress() {
        EventQueueHandler::wakeIfPending(_thread._wakeEvent, _thread._wakePending);
        std::atomic<int>& posting = _thread._posting;
        if (posting.fetch_sub(1, std::memory_order_acq_rel) == (kDrainWaiter | 1)) {
            // Only the address: the thread object may be gone already.
            platform::wakeWordWaiters(&posting);
        }
    }
    PostInProgress(const PostInProgress&) = delete;
    PostInProgress& operator=(const PostInProgress&) = delete;

  private:
    EventThread& _thread;
};

EventThread::EventThread(StopProcessingMode mode)
    : WorkThread(Thread::NORMAL_PRIORITY),
      _stopProcessingMode(mode),
      _mutex(std::make_unique<detail::OpaqueMutex>()),
      _wakeEvent(false, false),
      _posting(0),
      _wakePending(kNoWake),
      _refused(0) {
    setThreadName("kestrel-event");
}

EventThread::~EventThread() {
    stop();
}

bool EventThread::start() {
    return WorkThread::start();
}

bool EventThread::stop() {
    WorkThread::stop();
    // stopping() waited for the posts that saw the thread running; posts
    // that began since then refuse, but are still inside the object until
    // they have left the count. The owner may destroy the thread on return.
    awaitPostsInProgress(_posting);
    return true;
}

bool EventThread::isRunning() const {
    return WorkThread::isRunning();
}

void EventThread::postEvent(IEvent* const event, const IMatchEventFcn* const match,
                            const IMergeEventInfoFcn* const merge) {
    // Declared first: a refused event is destroyed once the post is over.
    std::unique_ptr<IEvent> owned(event);
    const PostInProgress post(*this);
    if (!owned) {
        return;
    }
    if (getState() == RUNNING && _eventQueue) {
        _eventQueue->postEvent(owned.release(), match, merge);
    } else {
        _refused.fetch_add(1, std::memory_order_relaxed);
    }
}

void EventThread::flushEvents(const IMatchEventFcn& match) {
    const PostInProgress flush(*this);
    if (getState() == RUNNING && _eventQueue) {
        _eventQueue->flushEvents(match, false);
    }
}

void EventThread::starting() {
    std::unique_ptr<EventQueue> previous;
    detail::OpaqueGuard lock(_mutex->mutex);
    // An empty processing-thread test makes this thread the queue's own.
    _wakePending.store(kNoWake, std::memory_order_relaxed);
    _posting.fetch_and(~kDrainWaiter, std::memory_order_relaxed);
    auto queue = std::make_unique<EventQueue>(new EventQueueHandler(&_wakeEvent, &_wakePending),
                                              std::function<bool()>());
    if (_eventQueue) {  // left by a run whose thread ended inside a hook
        _eventQueue->discardQueued();
        _pastCounters = addCounters(_pastCounters, _eventQueue->getCounters());
    }
    previous = std::exchange(_eventQueue, std::move(queue));
}

namespace {

// After a pass has emptied the queue, the event thread watches for the next
// post a moment before it sleeps: a producer that is still posting would
// otherwise pay a wake-up through the kernel for nearly every event, and the
// thread a wake-up latency (tens of microseconds for an idle virtual CPU)
// during which the producers' coalescing walks grow with the queue. A post
// that finds the thread watching hands its wake-up request over and signals
// nothing. The watch adapts: longer after one that caught a post, shorter
// after one that did not, so a thread that gets isolated posts spends little
// on it. Never while the thread is idle: only right after a pass.
//
// Between two looks the thread yields its processor: when a producer waits
// for that very processor (the two share one, or the machine is busy), the
// watch hands it over instead of keeping it for the watch's length, and on a
// processor of its own the yield returns at once. Measured against a watch
// that spins: more posts per second in both the throughput and coalescing
// workloads, most with the threads pinned to one processor (see
// docs/performance.md).
class PostWatch {
  public:
    // True when the queue asked for a wake-up (before or during the watch):
    // the request is then taken here and nobody signals. False at the
    // watch's end or when a stop is requested.
    template <typename Stopping>
    bool await(std::atomic<int>& wakePending, Stopping stopping) {
        using Clock = std::chrono::steady_clock;
        int state = kNoWake;
        if (!wakePending.compare_exchange_strong(state, kWatching, std::memory_order_acq_rel)) {
            // Asked already: a poster is about to signal, or the pass left
            // events behind; whoever takes the request first serves it.
            return takeWake(wakePending, state);
        }
        const Clock::time_point end = Clock::now() + _length;
        for (;;) {
            if (wakePending.load(std::memory_order_acquire) == kWakeHanded) {
                wakePending.store(kNoWake, std::memory_order_relaxed);
                _length = std::min(_length * 2, kLongest);
                return true;
            }
            if (stopping() || Clock::now() >= end) {
                state = kWatching;
                if (wakePending.compare_exchange_strong(state, kNoWake,
                                                        std::memory_order_acq_rel)) {
                    _length = std::max(_length / 2, kShortest);
                    return false;
                }
                // Handed over at the last moment.
                wakePending.store(kNoWake, std::memory_order_relaxed);
                return true;
            }
            std::this_thread::yield();
        }
    }

  private:
    static bool takeWake(std::atomic<int>& wakePending, int state) {
        return state == kWakePending &&
               wakePending.compare_exchange_strong(state, kNoWake, std::memory_order_acq_rel);
    }

    static constexpr std::chrono::nanoseconds kShortest{2000};
    static constexpr std::chrono::nanoseconds kLongest{32000};
    std::chrono::nanoseconds _length{8000};
};

}  // namespace

void EventThread::running() {
    // Only this thread sets the queue pointer (in starting() and stopping()),
    // so it reads the pointer without the lock: the lock keeps the queue
    // alive for the other threads, and taking it for every pass would only
    // make the passes contend with the posters.
    EventQueue* const queue = _eventQueue.get();
    PostWatch watch;
    while (wait(_wakeEvent)) {
        if (queue == nullptr) {
            continue;
        }
        // Events left or posted during the pass ask for a wake-up at its end,
        // as does a post into the queue the pass emptied: the thread takes
        // those requests itself and runs another pass.
        do {
            queue->processEvents();
        } while (watch.await(_wakePending, [this] { return isStopping(); }));
    }
    if (_stopProcessingMode == PROCESS_PENDING_EVENTS && queue != nullptr) {
        // The last pass also serves the posts that saw the thread running
        // and are still under way.
        awaitPostsInProgress(_posting);
        queue->processEvents();
    }
}

void EventThread::stopping() {
    // The state is STOPPING: posts and flushes that saw it RUNNING finish
    // before the queue goes; those that start now refuse.
    awaitPostsInProgress(_posting);
    detail::OpaqueGuard lock(_mutex->mutex);
    if (_eventQueue) {
        // The queue's counts outlive it: its remaining events are counted
        // before they are taken over.
        _eventQueue->discardQueued();
        _pastCounters = addCounters(_pastCounters, _eventQueue->getCounters());
        _eventQueue.reset();
    }
}

EventThread::Counters EventThread::getCounters() const {
    // The refusals first: a count read later is never behind them.
    const std::uint64_t refused = _refused.load(std::memory_order_relaxed);
    detail::OpaqueGuard lock(_mutex->mutex);
    Counters counters = _pastCounters;
    if (_eventQueue) {
        counters = addCounters(counters, _eventQueue->getCounters());
    }
    counters.posted += refused;
    counters.discarded += refused;
    return counters;
}

EventQueue* EventThread::getEventQueue() const {
    detail::OpaqueGuard lock(_mutex->mutex);
    return _eventQueue.get();
}

// ---- IEvent's posting to an event thread ----

void IEvent::postOrCoalesceEvent(EventThread& thread, const IMatchEventFcn* match,
                                 const IMergeEventInfoFcn* merge) {
    std::unique_ptr<IEvent> self(this);
    if (self->isExecutable()) {
        thread.postEvent(self.release(), match, merge);
    }
}

void IEvent::flushEvents(EventThread& thread, const IMatchEventFcn& match) {
    thread.flushEvents(match);
}

}  // namespace kestrel
