// Host code as it is written against the documented declarations. Each line
// that copy-initialises an object or reaches a protected member stands for a
// declaration that must stay as documented: most of this file's value is that
// it compiles.
#include <gtest/gtest.h>

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
    bool sameAsGetID = false;

  private:
    bool run() override {
        sameAsGetID = getID() == boost::this_thread::get_id();
        return true;
    }
};

class WaitingWorkThread : public WorkThread {
  public:
    using WorkThread::WorkThread;
    Event _go = true;  // manual reset

  private:
    void running() override {
        // The protected waits and state queries, from the subclass.
        if (getState() == RUNNING && !isStopping() && wait(_go))
            wait(INFINITE_SECONDS);
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
    thread.join();
    EXPECT_TRUE(thread.sameAsGetID);
    EXPECT_EQ(thread.getID(), boost::thread::id());  // joined: no thread object

    // Copy-initialisation from each documented converting constructor.
    Event manual = true;
    EventInfoLog log = 10;
    StartedTimer stopwatch = false;
    EXPECT_FALSE(stopwatch.isStarted());
    Timestamp when = 1.5;
    EXPECT_EQ(when.getTime(), 1.5);
    EventThread events = EventThread::PROCESS_PENDING_EVENTS;
    ForeverTimer timer = TimerThread::FIXED_DELAY;
    WaitingWorkThread work = Thread::LOW_PRIORITY;
    bool (TimerThread::*stopTimer)() = &TimerThread::stop;  // the timer's own members
    bool (EventThread::*stopEvents)() = &EventThread::stop;
    EXPECT_TRUE((timer.*stopTimer)() && (events.*stopEvents)());

    int executed = 0;
    EventManager::createInstance(nullptr);  // this thread processes it
    EXPECT_TRUE((new CountingEvent(&executed))->serviceNowWithoutMatch());  // runs here, at once
    EventManager::destroyInstance();
    EXPECT_EQ(executed, 1);
}

}  // namespace
}  // namespace kestrel
