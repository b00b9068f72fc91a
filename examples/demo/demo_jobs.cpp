#include "demo_jobs.h"

#include <cstdarg>
#include <cstdio>
#include <utility>

namespace demo {

namespace {

// How long a job thread waits between two blocks.
constexpr double kBlockInterval = 0.010;
constexpr std::size_t kBlockSize = 4096;

// 32-bit FNV-1a.
std::uint32_t checksumOf(const std::vector<std::uint8_t>& data) {
    std::uint32_t hash = 2166136261u;
    for (const std::uint8_t byte : data) {
        hash = (hash ^ byte) * 16777619u;
    }
    return hash;
}

// A newer progress update of the same job replaces the queued one. The match
// marks the event it picks, which the queue then destroys.
class SameJobProgress : public kestrel::IMatchEventFcn {
  public:
    explicit SameJobProgress(const Job& job) : _job(job) {}
    bool operator()(kestrel::IEvent* queuedEvent) const override {
        auto* progress = dynamic_cast<ProgressEvent*>(queuedEvent);
        if (progress == nullptr ||
            &static_cast<ProgressInfo*>(progress->getEventInfo())->job != &_job) {
            return false;
        }
        progress->replaced = true;
        return true;
    }

  private:
    const Job& _job;
};

// The new record absorbs the update count of the record it replaces.
class AddUpdates : public kestrel::IMergeEventInfoFcn {
  public:
    void operator()(kestrel::IEventInfo* newInfo, kestrel::IEventInfo* queuedInfo) const override {
        static_cast<ProgressInfo*>(newInfo)->updates +=
            static_cast<ProgressInfo*>(queuedInfo)->updates;
    }
};

}  // namespace

void DebugRecorder::record(const char* format, ...) {
    char text[1024];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    _lock.enter();
    _log.writeString("%s", text);
    _lock.leave();
}

DemoEvent::DemoEvent(Ledger& ledger, kestrel::IEventInfo* info) : IEvent(info), _ledger(ledger) {
    ++_ledger.created;
}

DemoEvent::~DemoEvent() {
    if (!_executed) {
        ++(replaced ? _ledger.coalesced : flushed ? _ledger.flushed : _ledger.discarded);
    }
    ++_ledger.destroyed;
}

bool DemoEvent::execute() {
    _executed = true;
    ++(kestrel::EventManager::getInstance()->isProcessingThread() ? _ledger.executedOnMain
                                                                  : _ledger.executedOnThread);
    return work();
}

BlockEvent::BlockEvent(Ledger& ledger, Job& job, std::vector<std::uint8_t> data, bool last,
                       kestrel::EventInfoLog& infoLog, DebugRecorder& recorder)
    : DemoEvent(ledger, nullptr),
      _job(job),
      _data(std::move(data)),
      _last(last),
      _infoLog(infoLog),
      _recorder(recorder) {}

bool BlockEvent::work() {
    const std::uint32_t total = _job.checksum += checksumOf(_data);
    if (_last) {
        // Runs on the event thread, so serviceEvent() queues the note on the
        // event manager for the main thread.
        char text[128];
        std::snprintf(text, sizeof text, "job %s: %d blocks, checksum %08x", _job.name.c_str(),
                      _job.blocks, total);
        _recorder.record("event thread: %s", text);
        ++_ledger.postedToManager;
        (new NoteEvent(_ledger, "JobDone", text, _infoLog, _recorder, &_job))->serviceEvent(true);
    }
    return true;
}

bool BlocksOfJob::operator()(kestrel::IEvent* queuedEvent) const {
    auto* block = dynamic_cast<BlockEvent*>(queuedEvent);
    if (block == nullptr || &block->job() != &_job) {
        return false;
    }
    block->flushed = true;
    return true;
}

ProgressEvent::ProgressEvent(Ledger& ledger, Job& job, int blocksDone)
    : DemoEvent(ledger, new ProgressInfo(job, blocksDone)) {
    ++_ledger.progressPosts;
}

bool ProgressEvent::serviceEvent(bool serviceNow) {
    const SameJobProgress match(info().job);
    const AddUpdates merge;
    return serviceOrCoalesceEvent(serviceNow, &match, &merge);
}

bool ProgressEvent::work() {
    Job& job = info().job;
    job.progress = info().blocksDone;
    ++job.progressEvents;
    job.progressUpdates += info().updates;
    return true;
}

ProgressInfo& ProgressEvent::info() const {
    return *static_cast<ProgressInfo*>(getEventInfo());
}

NoteEvent::NoteEvent(Ledger& ledger, const char* typeName, const std::string& text,
                     kestrel::EventInfoLog& infoLog, DebugRecorder& recorder, Job* finishedJob)
    : DemoEvent(ledger, new NoteInfo(typeName, text)),
      _infoLog(infoLog),
      _recorder(recorder),
      _finishedJob(finishedJob) {
    ++_ledger.notes;
}

NoteEvent::~NoteEvent() {
    _infoLog.append(getEventInfo());
}

bool NoteEvent::work() {
    const auto* info = static_cast<NoteInfo*>(getEventInfo());
    _recorder.record("main thread: %s: %s", info->getEventTypeName(), info->text.c_str());
    if (_finishedJob != nullptr) {
        _finishedJob->done = true;
    }
    return true;
}

JobThread::JobThread(Job& job, kestrel::EventThread& checksummer, Ledger& ledger,
                     kestrel::EventInfoLog& infoLog, DebugRecorder& recorder)
    : _job(job),
      _checksummer(checksummer),
      _ledger(ledger),
      _infoLog(infoLog),
      _recorder(recorder) {}

JobThread::~JobThread() {
    stop();  // while the hooks still exist
}

void JobThread::starting() {
    _recorder.record("job %s: starting, %d blocks to produce", _job.name.c_str(), _job.blocks);
}

void JobThread::running() {
    if (_produced == _job.blocks) {
        wait(kestrel::Thread::INFINITE_SECONDS);  // nothing left: wait for the stop
        return;
    }
    const int index = _produced++;
    auto* block = new BlockEvent(_ledger, _job, makeBlock(_job.name, index),
                                 _produced == _job.blocks, _infoLog, _recorder);
    ++_ledger.postedToThread;
    block->postEvent(_checksummer);

    // Not on the main thread, so this queues the update on the event manager.
    ++_ledger.postedToManager;
    (new ProgressEvent(_ledger, _job, _produced))->serviceEvent(true);

    wait(kBlockInterval);  // false when a stop was requested: running() ends then
}

void JobThread::stopping() {
    _recorder.record("job %s: stopping after %d blocks", _job.name.c_str(), _produced);
}

FrameTimer::FrameTimer(double period, kestrel::Event& wake)
    : TimerThread(FIXED_RATE, period), _wake(wake) {
    _lateness.reserve(4096);
}

FrameTimer::~FrameTimer() {
    stop();  // executing() must not run on a partly destroyed object
}

void FrameTimer::executing() {
    if (_lateness.size() < _lateness.capacity()) {
        _lateness.push_back(kestrel::Timestamp() - getExecutionTime());
    }
    _wake.signal();
}

std::vector<std::uint8_t> makeBlock(const std::string& jobName, int index) {
    std::uint32_t state = 0x9e3779b9u ^ static_cast<std::uint32_t>(index);
    for (const char c : jobName) {
        state = state * 31u + static_cast<unsigned char>(c);
    }
    std::vector<std::uint8_t> data(kBlockSize);
    for (std::uint8_t& byte : data) {
        state = state * 1664525u + 1013904223u;  // a linear congruential generator
        byte = static_cast<std::uint8_t>(state >> 24);
    }
    return data;
}

}  // namespace demo
