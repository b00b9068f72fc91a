// Events: the road of one event, and coalescing.
//
// The thread that creates the EventManager processes its queue. Its handler
// is told, on the posting thread, when events wait; it must only arrange for
// processEvents() to run later on the owner's thread, here by signalling an
// Event that main() waits on. An EventThread is a worker thread with a queue
// of its own. Events are created with new and handed over; whoever receives
// one destroys it.
#include <kestrel/kestrel.h>

#include <cstdio>
#include <memory>
#include <string>

namespace {

// The handler of the event manager: wakes main().
class WakeMain : public kestrel::EventQueue::IEventQueueHandler {
  public:
    explicit WakeMain(kestrel::Event& wake) : _wake(wake) {}
    void notifyEventsToProcess(std::size_t /*eventCount*/) const override { _wake.signal(); }

  private:
    kestrel::Event& _wake;
};

// Information kept after the event: loggable records go to an EventInfoLog.
class ResultInfo : public kestrel::IEventInfo {
  public:
    explicit ResultInfo(int result) : IEventInfo("Result", /*loggable=*/true), value(result) {}
    const int value;
};

// Runs on the main thread: shows the result and keeps its record in the log.
class ResultEvent : public kestrel::IEvent {
  public:
    ResultEvent(int value, kestrel::EventInfoLog& log) : IEvent(new ResultInfo(value)), _log(log) {}
    // A loggable record is freed only by a log, so hand it over whatever
    // happens to the event.
    ~ResultEvent() override { _log.append(getEventInfo()); }

  private:
    bool execute() override {
        std::printf("main thread: result %d\n", static_cast<ResultInfo*>(getEventInfo())->value);
        return true;
    }
    kestrel::EventInfoLog& _log;
};

// Runs on the event thread, then sends its result to the main thread.
class ComputeEvent : public kestrel::IEvent {
  public:
    ComputeEvent(int n, kestrel::EventInfoLog& log) : _n(n), _log(log) {}

  private:
    bool execute() override {
        int sum = 0;
        for (int i = 1; i <= _n; ++i) {
            sum += i * i;
        }
        // Not on the manager's thread: serviceEvent() queues it there.
        (new ResultEvent(sum, _log))->serviceEvent(true);
        return true;
    }
    const int _n;
    kestrel::EventInfoLog& _log;
};

// A status line whose newer posts replace a queued older one.
class StatusInfo : public kestrel::IEventInfo {
  public:
    explicit StatusInfo(std::string line) : IEventInfo("Status", false), text(std::move(line)) {}
    const std::string text;
    int posts = 1;  // how many posts this record stands for
};

class StatusEvent : public kestrel::IEvent {
  public:
    explicit StatusEvent(const std::string& text) : IEvent(new StatusInfo(text)) {}

    bool serviceEvent(bool serviceNow) override {
        // Replace the first queued StatusEvent...
        struct AnyStatus : kestrel::IMatchEventFcn {
            bool operator()(kestrel::IEvent* queued) const override {
                return dynamic_cast<StatusEvent*>(queued) != nullptr;
            }
        } match;
        // ...after adding its post count to the new record.
        struct CountPosts : kestrel::IMergeEventInfoFcn {
            void operator()(kestrel::IEventInfo* newInfo,
                            kestrel::IEventInfo* queuedInfo) const override {
                static_cast<StatusInfo*>(newInfo)->posts +=
                    static_cast<StatusInfo*>(queuedInfo)->posts;
            }
        } merge;
        return serviceOrCoalesceEvent(serviceNow, &match, &merge);
    }

  private:
    bool execute() override {
        const auto* info = static_cast<StatusInfo*>(getEventInfo());
        std::printf("main thread: status \"%s\" (%d posts)\n", info->text.c_str(), info->posts);
        return true;
    }
};

}  // namespace

int main() {
    kestrel::Event wake;
    kestrel::EventManager* manager = kestrel::EventManager::createInstance(new WakeMain(wake));
    kestrel::EventInfoLog log(/*maxToLog=*/10);
    {
        kestrel::EventThread worker;
        if (!worker.start()) {
            std::fprintf(stderr, "cannot start the event thread\n");
            kestrel::EventManager::destroyInstance();
            return 1;
        }

        // 1. Post work to the event thread; its result comes back to main().
        (new ComputeEvent(10, log))->postEvent(worker);
        wake.wait();               // the handler signals when the result is queued
        manager->processEvents();  // runs ResultEvent here, on the main thread

        // 2. Coalescing: serviceEvent(false) always queues, so the five
        //    status posts meet in the queue and only the newest one remains.
        for (int i = 1; i <= 5; ++i) {
            (new StatusEvent("step " + std::to_string(i)))->serviceEvent(false);
        }
        manager->processEvents();

        worker.stop();
    }

    // 3. The log keeps the loggable records; read it through an enumerator,
    //    which holds the log's lock until it is deleted.
    std::unique_ptr<kestrel::TLockingEnumerator<std::list<kestrel::IEventInfo*>>> records(
        log.getLockingEnumerator());
    std::printf("info log: %zu record(s)\n", records->getCount());
    for (; !records->isAtEnd(); records->next()) {
        std::printf("  %s %d\n", records->getCurrent()->getEventTypeName(),
                    static_cast<ResultInfo*>(records->getCurrent())->value);
    }
    const bool ok = records->getCount() == 1;
    records.reset();

    kestrel::EventManager::destroyInstance();  // destroys the handler too
    return ok ? 0 : 1;
}
