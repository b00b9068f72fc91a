#include <functional>
#include <memory>
#include <utility>

#include "events/opaque_mutex.h"
#include "kestrel/events.h"

namespace kestrel {

namespace {

// A post to an event thread wakes the thread only after it has released the
// thread's lock and the queue's: woken under them, the thread would at once
// block on the queue's lock and have to be woken a second time. While a post
// runs, its thread carries one of these; the handler notes the wake-up in it
// instead of signalling, and the post signals on its way out.
class DeferredWake {
  public:
    explicit DeferredWake(Event& wakeEvent) : _wakeEvent(wakeEvent), _outer(current) {
        current = this;
    }
    ~DeferredWake() {
        current = _outer;
        if (_pending) {
            _wakeEvent.signal();
        }
    }
    DeferredWake(const DeferredWake&) = delete;
    DeferredWake& operator=(const DeferredWake&) = delete;

    // Signals wakeEvent now, or notes it for the post of this thread that
    // is under way for that event.
    static void signal(Event& wakeEvent) {
        for (DeferredWake* post = current; post != nullptr; post = post->_outer) {
            if (&post->_wakeEvent == &wakeEvent) {
                post->_pending = true;
                return;
            }
        }
        wakeEvent.signal();
    }

  private:
    static thread_local DeferredWake* current;

    Event& _wakeEvent;
    DeferredWake* const _outer;  // a post under way further up this thread's stack
    bool _pending = false;
};

thread_local DeferredWake* DeferredWake::current = nullptr;

}  // namespace

// Wakes the event thread whenever its queue has events to process.
class EventThread::EventQueueHandler : public EventQueue::IEventQueueHandler {
  public:
    explicit EventQueueHandler(Event* wakeEvent) : _wakeEvent(wakeEvent) { _wakeEvent->reset(); }
    void notifyEventsToProcess(std::size_t /*eventCount*/) const override {
        DeferredWake::signal(*_wakeEvent);
    }

  private:
    Event* _wakeEvent;
};

EventThread::EventThread(StopProcessingMode mode)
    : WorkThread(Thread::NORMAL_PRIORITY),
      _stopProcessingMode(mode),
      _mutex(std::make_unique<detail::OpaqueMutex>()),
      _wakeEvent(false, false) {}

EventThread::~EventThread() {
    WorkThread::stop();
}

bool EventThread::start() {
    return WorkThread::start();
}

bool EventThread::stop() {
    return WorkThread::stop();
}

bool EventThread::isRunning() const {
    return WorkThread::isRunning();
}

void EventThread::postEvent(IEvent* const event, const IMatchEventFcn* const match,
                            const IMergeEventInfoFcn* const merge) {
    // Declared before the lock: a refused event is destroyed, and the thread
    // woken, after unlocking.
    std::unique_ptr<IEvent> owned(event);
    const DeferredWake wake(_wakeEvent);
    detail::OpaqueGuard lock(_mutex->mutex);
    if (owned && getState() == RUNNING && _eventQueue) {
        _eventQueue->postEvent(owned.release(), match, merge);
    }
}

void EventThread::flushEvents(const IMatchEventFcn& match) {
    detail::OpaqueGuard lock(_mutex->mutex);
    if (getState() == RUNNING && _eventQueue) {
        _eventQueue->flushEvents(match, false);
    }
}

void EventThread::starting() {
    std::unique_ptr<EventQueue> previous;
    detail::OpaqueGuard lock(_mutex->mutex);
    // An empty processing-thread test makes this thread the queue's own.
    auto queue =
        std::make_unique<EventQueue>(new EventQueueHandler(&_wakeEvent), std::function<bool()>());
    previous = std::exchange(_eventQueue, std::move(queue));
}

void EventThread::running() {
    // Only this thread sets the queue pointer (in starting() and stopping()),
    // so it reads the pointer without the lock: the lock keeps the queue
    // alive for the other threads, and taking it for every pass would only
    // make the passes contend with the posters.
    EventQueue* const queue = _eventQueue.get();
    while (wait(_wakeEvent)) {
        if (queue != nullptr) {
            queue->processEvents();
        }
    }
    if (_stopProcessingMode == PROCESS_PENDING_EVENTS && queue != nullptr) {
        queue->processEvents();
    }
}

void EventThread::stopping() {
    detail::OpaqueGuard lock(_mutex->mutex);
    _eventQueue.reset();
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
