// The consumers of the queue workloads (1 to 3) and of the idle workload:
// each offers start() (untimed), post(task) from any thread, and stop()
// (untimed); the task runs on the consumer thread.
//
//   kestrel  EventThread, tasks as IEvent objects (one allocation each, as
//            the interface demands);
//   asio     boost::asio::io_context with one thread in run(), post();
//   poco     Poco::NotificationQueue drained by one thread;
//   std      std::mutex + std::condition_variable + std::deque of
//            std::function, the queue a team would write by hand;
//   allocating deque  the same queue holding one heap object per task
//            (throughput only): what the allocation alone costs it.
#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Notification.h>
#include <Poco/NotificationQueue.h>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

#include "kestrel/events.h"

namespace kestrel_bench {

template <typename Task>
class TaskEvent final : public kestrel::IEvent {
  public:
    explicit TaskEvent(Task task) : _task(std::move(task)) {}

  private:
    bool execute() override {
        _task();
        return true;
    }
    Task _task;
};

class KestrelConsumer {
  public:
    static constexpr const char* kName = "kestrel EventThread";
    void start() { _thread.start(); }
    void stop() { _thread.stop(); }
    template <typename Task>
    void post(Task task) {
        (new TaskEvent<Task>(std::move(task)))->postEvent(_thread);
    }
    kestrel::EventThread& thread() { return _thread; }

  private:
    kestrel::EventThread _thread;
};

class AsioConsumer {
  public:
    static constexpr const char* kName = "asio io_context::post";
    void start() {
        _thread = std::thread([this] { _io.run(); });
    }
    void stop() {
        _guard.reset();
        _thread.join();
    }
    template <typename Task>
    void post(Task task) {
        boost::asio::post(_io, std::move(task));
    }

  private:
    boost::asio::io_context _io;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> _guard{
        _io.get_executor()};
    std::thread _thread;
};

class PocoTask : public Poco::Notification {
  public:
    virtual void run() = 0;
};

template <typename Task>
class PocoTaskNotification final : public PocoTask {
  public:
    explicit PocoTaskNotification(Task task) : _task(std::move(task)) {}
    void run() override { _task(); }

  private:
    Task _task;
};

class PocoConsumer {
  public:
    static constexpr const char* kName = "Poco NotificationQueue";
    void start() {
        _thread = std::thread([this] {
            while (_running) {
                Poco::AutoPtr<Poco::Notification> next(_queue.waitDequeueNotification());
                static_cast<PocoTask*>(next.get())->run();
            }
        });
    }
    void stop() {
        post([this] { _running = false; });
        _thread.join();
    }
    template <typename Task>
    void post(Task task) {
        _queue.enqueueNotification(new PocoTaskNotification<Task>(std::move(task)));
    }

  private:
    Poco::NotificationQueue _queue;
    bool _running = true;  // only touched on the consumer thread
    std::thread _thread;
};

// How the hand-written queue keeps its tasks: inline in a std::function
// (the small lambdas of the workloads need no allocation), or one heap
// object per task behind a virtual call, as an IEvent queue must.
struct InlineTasks {
    static constexpr const char* kName = "std mutex+condvar+deque";
    using Stored = std::function<void()>;
    template <typename Task>
    static Stored wrap(Task task) {
        return Stored(std::move(task));
    }
    static void run(Stored& task) { task(); }
};

struct HeapTasks {
    // Not "std ...": the std queue's targets are not this contender's.
    static constexpr const char* kName = "allocating deque (new per task)";
    struct Base {
        virtual ~Base() = default;
        virtual void run() = 0;
    };
    template <typename Task>
    struct Holder final : Base {
        explicit Holder(Task task) : _task(std::move(task)) {}
        void run() override { _task(); }
        Task _task;
    };
    using Stored = std::unique_ptr<Base>;
    template <typename Task>
    static Stored wrap(Task task) {
        return std::make_unique<Holder<Task>>(std::move(task));
    }
    static void run(Stored& task) { task->run(); }
};

template <typename Tasks>
class HandWrittenConsumer {
  public:
    static constexpr const char* kName = Tasks::kName;
    void start() {
        _thread = std::thread([this] { consume(); });
    }
    void stop() {
        {
            std::lock_guard<std::mutex> lock(_mutex);
            _stopping = true;
        }
        _condition.notify_one();
        _thread.join();
    }
    template <typename Task>
    void post(Task task) {
        typename Tasks::Stored stored = Tasks::wrap(std::move(task));
        {
            std::lock_guard<std::mutex> lock(_mutex);
            _tasks.push_back(std::move(stored));
        }
        _condition.notify_one();
    }

  private:
    void consume() {
        std::unique_lock<std::mutex> lock(_mutex);
        for (;;) {
            _condition.wait(lock, [this] { return !_tasks.empty() || _stopping; });
            if (_tasks.empty()) {
                return;
            }
            typename Tasks::Stored task = std::move(_tasks.front());
            _tasks.pop_front();
            lock.unlock();
            Tasks::run(task);
            task = typename Tasks::Stored();  // destroyed unlocked, as kestrel's
            lock.lock();
        }
    }

    std::mutex _mutex;
    std::condition_variable _condition;
    std::deque<typename Tasks::Stored> _tasks;  // guarded by _mutex
    bool _stopping = false;                     // guarded by _mutex
    std::thread _thread;
};

using StdConsumer = HandWrittenConsumer<InlineTasks>;
using AllocatingStdConsumer = HandWrittenConsumer<HeapTasks>;

}  // namespace kestrel_bench
