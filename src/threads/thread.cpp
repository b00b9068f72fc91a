#include <boost/thread/barrier.hpp>
#include <boost/thread/exceptions.hpp>
#include <boost/thread/thread.hpp>

#include "core/contract.h"
#include "core/thread_end.h"
#include "kestrel/threads.h"
#include "platform/platform.h"
#include "threads/thread_support.h"

namespace kestrel {

namespace {

// A thread that ends by pthread_exit() or cancellation skips the end of the
// threading library's own thread function, where a join learns that the
// thread function is over: joining it would wait for ever. The thread tells
// it on its way out instead; the join then waits, as always, until the
// operating system has ended the thread.
void reportUnwoundEnd() {
#if defined(BOOST_THREAD_PLATFORM_PTHREAD)
    boost::detail::thread_data_base* const data = boost::detail::get_current_thread_data();
    if (data != nullptr) {
        const boost::lock_guard<boost::mutex> lock(data->data_mutex);
        data->done = true;
        data->done_condition.notify_all();
    }
#endif
}

}  // namespace

// One per Thread: the operating-system thread of the current start and the
// rendezvous with it.
class Thread::ThreadImpl {
  public:
    ThreadImpl(Thread* owner, ThreadPriority priority)
        : _owner(owner), _priority(priority), _active(false), _startBarrier(2) {}

    bool start();
    void join();
    bool isActive() const { return _active; }
    void setName(const std::string& name) { _name = name; }
    const std::string& getName() const { return _name; }
    boost::thread::id getID() const { return _thread ? _thread->get_id() : boost::thread::id(); }

  private:
    bool threadFunction();

    Thread* const _owner;
    const ThreadPriority _priority;
    bool _active;
    std::unique_ptr<boost::thread> _thread;
    boost::barrier _startBarrier;
    // Written by the new thread before the rendezvous, read by start() after.
    platform::ThreadPriorityHandle _priorityHandle;
    // Written by the owner while no thread starts; read by the new thread.
    std::string _name = "kestrel-thread";
};

bool Thread::ThreadImpl::start() {
    if (_active) {
        return true;
    }
    _active = true;
    std::unique_ptr<boost::thread> created;
    try {
        created = std::make_unique<boost::thread>(&ThreadImpl::threadFunction, this);
    } catch (const boost::thread_resource_error&) {
        _active = false;
        return false;
    } catch (...) {
        _active = false;
        throw;
    }
    _thread = std::move(created);
    _startBarrier.wait();

    switch (_priority) {
        case HIGH_PRIORITY:
            platform::applyThreadPriority(_priorityHandle, platform::ThreadPriorityShift::Highest);
            break;
        case LOW_PRIORITY:
            platform::applyThreadPriority(_priorityHandle, platform::ThreadPriorityShift::Lowest);
            break;
        default:
            break;
    }
    return true;
}

KESTREL_CATCHES_THREAD_END bool Thread::ThreadImpl::threadFunction() {
    struct UnwoundEnd {
        bool returned = false;
        ~UnwoundEnd() {
            if (!returned) {
                reportUnwoundEnd();
            }
        }
    } unwoundEnd;
    bool result = true;
    _priorityHandle = platform::captureCurrentThread();
    if (!_name.empty()) {
        platform::nameCurrentThread(_name);
    }
    _startBarrier.wait();
    try {
        result = _owner->run();
    } catch (const boost::thread_interrupted&) {
        // An interruption ends the thread quietly.
    }
    KESTREL_PASS_THREAD_END
    catch (...) {
        result = false;
    }
    return result;
}

void Thread::ThreadImpl::join() {
    if (!_active) {
        return;
    }
    KESTREL_EXPECTS(_thread->get_id() != boost::this_thread::get_id(),
                    "Thread::join() called on the thread itself, which cannot wait for its own "
                    "end: join it from its owner's thread (see kestrel/threads.h, Thread)");
    _thread->join();
    _thread.reset();
    _active = false;
}

Thread::Thread(ThreadPriority priority) : _impl(std::make_unique<ThreadImpl>(this, priority)) {}

Thread::~Thread() {
    KESTREL_EXPECTS(!_impl->isActive(),
                    "Thread destroyed while its thread was started and not joined: call join() "
                    "before destroying it (see kestrel/threads.h, Thread)");
}

bool Thread::start() {
    return _impl->start();
}

void Thread::join() {
    _impl->join();
}

bool Thread::isActive() const {
    return _impl->isActive();
}

void Thread::setThreadName(const std::string& name) {
    _impl->setName(name);
}

std::string Thread::getThreadName() const {
    return _impl->getName();
}

boost::thread::id Thread::getID() const {
    return _impl->getID();
}

std::size_t Thread::getNumCores() {
    return static_cast<std::size_t>(boost::thread::hardware_concurrency());
}

void Thread::sleep(double seconds) {
    const double s = seconds > 0.0 ? seconds : 0.0;  // negative and NaN: no wait
    const std::int64_t duration =
        s == INFINITE_SECONDS ? detail::kUnboundedNanoseconds : detail::roundedNanoseconds(s);
    boost::this_thread::sleep_until(
        detail::steadyTimePoint(detail::steadyNowNanoseconds() + duration));
}

void Thread::yield() {
    boost::this_thread::yield();
}

}  // namespace kestrel
