// Host code as it is written against the documented declarations. Each line
// that copy-initialises an object or reaches a protected member stands for a
// declaration that must stay as documented: most of this file's value is that
// it compiles.
#include <gtest/gtest.h>

#include <atomic>
#include <boost/thread/thread_only.hpp>

#include "kestrel/kestrel.h"

namespace kestrel {
namespace {

// A subclass that keeps the threading library's identifiers, as host code
// does to recognise its own threads. Read after join().
class RecordingThread : public Thread {
  public:
    using Thread::getID;
    using Thread::Thread;  // inherits the constructor's conversions too
    boost::thread::id seen;
    bool sameAsGetID = false;

  private:
    bool run() override {
        seen = boost::this_thread::get_id();
        sameAsGetID = getID() == seen;
        return true;
    }
};

class WaitingWorkThread : public WorkThread {
  public:
    using WorkThread::WorkThread;
    Event _go = true;  // manual reset, signalled by the test
    Event _ran;
    std::atomic<int> _passes{0};

  private:
    void running() override {
        // The protected waits and state queries, from the subclass.
        if (getState() == RUNNING && !isStopping() && wait(_go)) {
            ++_passes;
            _ran.signal();
            wait(INFINITE_SECONDS);  // until the stop
        }
    }
};

class ForeverTimer : public TimerThread {
  public:
    using TimerThread::TimerThread;

  private:
    void executing() override { waitUntilStop(); }
};

class StartedTimer : public ElapsedTimer {
  public:
    using ElapsedTimer::ElapsedTimer;
    using ElapsedTimer::isStarted;
};

class CountingEvent : public IEvent {
  public:
    using IEvent::IEvent;
    explicit CountingEvent(int* count) : IEvent(), _count(count) {}
    // The protected coalescing entry point, from the subclass.
    bool serviceNowWithoutMatch() { return serviceOrCoalesceEvent(true, nullptr, nullptr); }

  private:
    bool execute() override {
        ++*_count;
        return true;
    }
    int* _count = nullptr;
};

TEST(DocumentedInterfaceTest, GetIdIsTheThreadingLibrarysIdentifierAndConstructorsConvert) {
    RecordingThread thread = Thread::HIGH_PRIORITY;
    ASSERT_TRUE(thread.start());
    const boost::thread::id running = thread.getID();
    thread.join();
    EXPECT_TRUE(thread.seen == running && thread.sameAsGetID);
    EXPECT_EQ(thread.getID(), boost::thread::id());  // joined: no thread object

    // Copy-initialisation from each documented converting constructor.
    Event manual = true;
    manual.signal();
    manual.wait();
    manual.wait();  // manual reset: still set
    EventInfoLog log = 10;
    StartedTimer stopwatch = false;
    EXPECT_FALSE(stopwatch.isStarted());
    Timestamp when = 1.5;
    EXPECT_EQ(when.getTime(), 1.5);
    EventThread events = EventThread::PROCESS_PENDING_EVENTS;
    EXPECT_FALSE(events.isRunning());
    ForeverTimer timer = TimerThread::FIXED_DELAY;
    timer.setPeriod(0.25);
    bool (TimerThread::*stopTimer)() = &TimerThread::stop;  // the timer's own members
    bool (EventThread::*stopEvents)() = &EventThread::stop;
    EXPECT_TRUE((timer.*stopTimer)());
    EXPECT_TRUE((events.*stopEvents)());

    WaitingWorkThread work = Thread::LOW_PRIORITY;
    work._go.signal();
    ASSERT_TRUE(work.start());
    EXPECT_TRUE(work.isRunning());
    work._ran.wait();
    EXPECT_TRUE(work.stop());
    EXPECT_EQ(work._passes.load(), 1);

    int executed = 0;
    EventManager::createInstance(nullptr);  // this thread processes it
    CountingEvent* now = new CountingEvent(&executed);
    EXPECT_TRUE(now->serviceNowWithoutMatch());  // runs here, at once
    EventManager::destroyInstance();
    EXPECT_EQ(executed, 1);
}

}  // namespace
}  // namespace kestrel
