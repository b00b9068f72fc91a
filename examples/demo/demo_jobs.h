// The cast of kestrel-demo: jobs that produce data blocks on worker threads,
// the events that carry their blocks, progress and completion, and the
// frame timer. Every event counts its own fate in a Ledger when it is
// destroyed, so the demo can show that none went missing.
#pragma once

#include <kestrel/kestrel.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace demo {

// What happened to the events, counted from every thread.
struct Ledger {
    std::atomic<int> postedToManager{0};  // handed to the event manager
    std::atomic<int> postedToThread{0};   // handed to the event thread
    std::atomic<int> servicedAtOnce{0};   // run at once on the main thread
    std::atomic<int> executedOnMain{0};
    std::atomic<int> executedOnThread{0};
    std::atomic<int> coalesced{0};  // replaced in a queue by a newer event
    std::atomic<int> flushed{0};    // removed from a queue unexecuted
    std::atomic<int> discarded{0};  // destroyed unexecuted for any other reason
    std::atomic<int> created{0};
    std::atomic<int> destroyed{0};
    std::atomic<int> progressPosts{0};
    std::atomic<int> notes{0};    // loggable notes, each appended to the info log
    std::atomic<int> wakeUps{0};  // handler notifications
};

// Writes printf-style records to the demo's KSDebugLog from any thread.
// KSDebugLog is not synchronised, so a KSCriticalSection serialises the calls.
class DebugRecorder {
  public:
    explicit DebugRecorder(kestrel::KSDebugLog& log) : _log(log) {}
    void record(const char* format, ...) KESTREL_PRINTF_FORMAT(2, 3);

  private:
    kestrel::KSDebugLog& _log;
    kestrel::KSCriticalSection _lock;
};

// One job: a number of data blocks produced by a JobThread and checksummed on
// the event thread.
struct Job {
    Job(const char* jobName, int blockCount) : name(jobName), blocks(blockCount) {}
    const std::string name;
    const int blocks;
    std::atomic<std::uint32_t> checksum{0};  // summed by the event thread
    // Kept by the main thread, from the events it processes:
    int progress = 0;         // blocks produced, as last reported
    int progressEvents = 0;   // progress events executed
    int progressUpdates = 0;  // progress posts those events stood for
    bool done = false;
};

// The base of the demo's events: tells the ledger, when destroyed, whether the
// event was executed, coalesced, flushed or discarded.
class DemoEvent : public kestrel::IEvent {
  public:
    DemoEvent(Ledger& ledger, kestrel::IEventInfo* info);
    ~DemoEvent() override;

    // Set by the match object that picks this event, under the queue's lock.
    bool replaced = false;
    bool flushed = false;

  protected:
    Ledger& _ledger;

  private:
    bool execute() final;
    // The event's own work.
    virtual bool work() = 0;

    bool _executed = false;
};

// A block of data for the event thread to checksum. The last block of a job
// tells the main thread that the job is done.
class BlockEvent : public DemoEvent {
  public:
    BlockEvent(Ledger& ledger, Job& job, std::vector<std::uint8_t> data, bool last,
               kestrel::EventInfoLog& infoLog, DebugRecorder& recorder);
    Job& job() const { return _job; }

  private:
    bool work() override;

    Job& _job;
    std::vector<std::uint8_t> _data;
    bool _last;
    kestrel::EventInfoLog& _infoLog;
    DebugRecorder& _recorder;
};

// Removes a job's queued blocks from the event thread (a cancelled job).
class BlocksOfJob : public kestrel::IMatchEventFcn {
  public:
    explicit BlocksOfJob(const Job& job) : _job(job) {}
    bool operator()(kestrel::IEvent* queuedEvent) const override;

  private:
    const Job& _job;
};

// The information of a progress event. Not loggable: progress is news only
// until the next update.
class ProgressInfo : public kestrel::IEventInfo {
  public:
    ProgressInfo(Job& ofJob, int produced)
        : IEventInfo("JobProgress", false), job(ofJob), blocksDone(produced) {}
    Job& job;
    const int blocksDone;
    int updates = 1;  // the progress posts this record stands for
};

// A job's progress, for the main thread. A new update replaces one of the
// same job that is still queued: the main thread only needs the latest.
class ProgressEvent : public DemoEvent {
  public:
    ProgressEvent(Ledger& ledger, Job& job, int blocksDone);
    bool serviceEvent(bool serviceNow) override;

  private:
    bool work() override;
    ProgressInfo& info() const;
};

// A loggable note for the main thread: "DemoStarted", "PluginLoaded",
// "JobDone". Whatever its fate, the event hands its record to the info log
// when it is destroyed: a loggable record that reaches no log is never freed.
class NoteEvent : public DemoEvent {
  public:
    NoteEvent(Ledger& ledger, const char* typeName, const std::string& text,
              kestrel::EventInfoLog& infoLog, DebugRecorder& recorder, Job* finishedJob = nullptr);
    ~NoteEvent() override;

  private:
    bool work() override;

    kestrel::EventInfoLog& _infoLog;
    DebugRecorder& _recorder;
    Job* _finishedJob;
};

// The information of a note: its type name and a line of text.
class NoteInfo : public kestrel::IEventInfo {
  public:
    NoteInfo(const char* typeName, const std::string& line)
        : IEventInfo(typeName, true), text(line) {}
    const std::string text;
};

// A worker thread that produces a job's blocks, one per pass, posting each
// block to the event thread and its progress to the event manager.
class JobThread : public kestrel::WorkThread {
  public:
    JobThread(Job& job, kestrel::EventThread& checksummer, Ledger& ledger,
              kestrel::EventInfoLog& infoLog, DebugRecorder& recorder);
    ~JobThread() override;

  private:
    void starting() override;
    void running() override;
    void stopping() override;

    Job& _job;
    kestrel::EventThread& _checksummer;
    Ledger& _ledger;
    kestrel::EventInfoLog& _infoLog;
    DebugRecorder& _recorder;
    int _produced = 0;  // used on the job thread only
};

// Ticks at a fixed rate, records how late each tick ran, and wakes the main
// loop so that it can check its deadline even when no event arrives.
class FrameTimer : public kestrel::TimerThread {
  public:
    FrameTimer(double period, kestrel::Event& wake);
    ~FrameTimer() override;
    // Seconds between each tick's scheduled time and its run; read it after
    // stop().
    const std::vector<double>& lateness() const { return _lateness; }

  private:
    void executing() override;

    kestrel::Event& _wake;
    std::vector<double> _lateness;  // written on the timer thread until stop()
};

// Makes the data of one block: the same bytes for the same job and index.
std::vector<std::uint8_t> makeBlock(const std::string& jobName, int index);

}  // namespace demo
