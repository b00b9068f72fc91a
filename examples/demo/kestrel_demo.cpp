// kestrel-demo: a small host application that shows the library at work.
//
// The main thread owns the event manager. It runs a frame loop: it sleeps on
// a kestrel::Event until the manager's handler (or the frame timer) wakes it,
// processes the queued events, then spends the rest of the frame "drawing".
// Meanwhile:
//   - three job threads (WorkThread) produce data blocks. Each block goes to
//     an EventThread, which checksums it; each job's progress goes to the
//     event manager, where updates that arrive within one frame coalesce;
//   - the event thread, having checksummed a job's last block, posts a
//     loggable "JobDone" note to the main thread, which keeps the notes in an
//     EventInfoLog;
//   - a prefetch that the main thread queues on the event thread and cancels
//     at once shows flushing;
//   - a TimerThread ticks every 20 ms and measures how late each tick runs;
//   - a plugin is loaded from a path written with "$QX_INSTALL_ROOT" and
//     "$QX_ARCH", and its entry point is called; a text file posing as a
//     plugin fails to load, and the demo shows why;
//   - a KSDebugLog records what happened.
// It ends with a report, after checking that every event is accounted for.
// Exit status: 0 on success, 1 with a message on stderr on any failure.
#include <fl/filesystem.h>
#include <fl/i18n.h>
#include <foundation/log/diagnostic_logger.h>
#include <kestrel/kestrel.h>

#include <boost/log/core/core.hpp>
#include <boost/log/expressions.hpp>
#include <boost/log/sinks/basic_sink_backend.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/make_shared.hpp>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "demo_jobs.h"

namespace {

constexpr double kTimerPeriod = 0.020;  // the frame timer's period
constexpr double kFrameWork = 0.040;    // what the main loop spends "drawing" per frame
constexpr double kDeadline = 30.0;      // the demo fails if the jobs take longer
constexpr int kInfoLogLimit = 4;        // the info log keeps the 4 newest notes
constexpr int kPrefetchBlocks = 40;

// Where the plugin lies, written the way a host writes plugin paths.
const char* const kPluginPath = "$QX_INSTALL_ROOT/" KESTREL_PLUGIN_DIR "/$QX_ARCH/demo_plugin.dll";
const char* const kPluginEntryPoint = "kestrelDemoPluginHello";

// The event manager's handler. It runs on whichever thread posts, under the
// queue's lock, so it only wakes the main loop, which then calls
// processEvents() on its own thread.
class WakeMainLoop : public kestrel::EventQueue::IEventQueueHandler {
  public:
    WakeMainLoop(kestrel::Event& wake, demo::Ledger& ledger) : _wake(wake), _ledger(ledger) {}
    void notifyEventsToProcess(std::size_t /*eventCount*/) const override {
        ++_ledger.wakeUps;
        _wake.signal();
    }

  private:
    kestrel::Event& _wake;
    demo::Ledger& _ledger;
};

// Destroys the event manager (and the events still queued on it) on the way
// out, also when the demo fails.
struct EventManagerScope {
    EventManagerScope() = default;
    EventManagerScope(const EventManagerScope&) = delete;
    EventManagerScope& operator=(const EventManagerScope&) = delete;
    ~EventManagerScope() { kestrel::EventManager::destroyInstance(); }
};

// Collects the lines of one diagnostic channel (a Boost.Log source) while it
// lives, with the channel's progress severity switched on.
class ChannelLines {
  public:
    ChannelLines(const std::string& channel, unsigned int severities)
        : _channel(channel), _previousMask(foundation::log::severity_mask(channel)) {
        namespace expr = boost::log::expressions;
        _sink->set_filter(expr::attr<std::string>("Channel") == channel);
        boost::log::core::get()->add_sink(_sink);
        foundation::log::set_severity_mask(channel, _previousMask | severities);
    }
    ~ChannelLines() {
        foundation::log::set_severity_mask(_channel, _previousMask);
        boost::log::core::get()->remove_sink(_sink);
    }
    ChannelLines(const ChannelLines&) = delete;
    ChannelLines& operator=(const ChannelLines&) = delete;

    std::vector<std::string> lines() const { return _sink->locked_backend()->lines; }

  private:
    struct Backend
        : boost::log::sinks::basic_sink_backend<boost::log::sinks::synchronized_feeding> {
        void consume(const boost::log::record_view& record) {
            lines.push_back(*record["Message"].extract<std::string>());
        }
        std::vector<std::string> lines;
    };
    using Sink = boost::log::sinks::synchronous_sink<Backend>;

    const std::string _channel;
    const unsigned int _previousMask;
    const boost::shared_ptr<Sink> _sink = boost::make_shared<Sink>();
};

struct PluginResult {
    kestrel::ustring resolvedPath;
    std::string greeting;
    std::vector<std::string> loaderLines;
};

// The road of one plugin load: resolve the tokens, load, call the entry
// point. Throws KSException when the plugin cannot be loaded.
PluginResult loadPlugin(demo::DebugRecorder& recorder) {
    PluginResult result;
    // "$QX_INSTALL_ROOT" becomes the installation root, "$QX_ARCH" the
    // architecture name, every "/" a backslash, and the ".dll" ending goes
    // (loading adds it again).
    result.resolvedPath =
        kestrel::PluginLoader::preProcessPath(fl::i18n::to_ustring(kPluginPath), u"/");

    const ChannelLines loaderChannel("kestrel::PluginLoader", 8);
    const kestrel::PluginLoader plugin(result.resolvedPath, kPluginEntryPoint,
                                       /*unloadOnDestruction=*/true, /*libraryLoadSearchPath=*/u"");
    using HelloFcn = const char* (*)();
    const auto hello = reinterpret_cast<HelloFcn>(plugin.getEntryPointFcn());
    result.greeting = hello();  // copied: the text goes with the library
    result.loaderLines = loaderChannel.lines();
    recorder.record("main thread: plugin %s says \"%s\"",
                    fl::i18n::to_string(result.resolvedPath).c_str(), result.greeting.c_str());
    return result;
}

struct BrokenPluginResult {
    std::string path;
    std::string failure;  // the exception: identifier and message
    std::string reason;   // what the system loader said
    std::vector<std::string> loaderLines;
};

// Removes a file on the way out, also when the demo fails.
struct RemoveFile {
    std::filesystem::path path;
    ~RemoveFile() {
        std::error_code ignored;
        std::filesystem::remove(path, ignored);
    }
};

// A failing load: a text file named like a plugin, in the temporary
// directory (and removed again). The exception names the failure; the
// reason says what the system loader found wrong.
BrokenPluginResult loadBrokenPlugin() {
    BrokenPluginResult result;
    const kestrel::ustring file = fl::filesystem::tmpnam(fl::filesystem::temp_directory_name(),
                                                         u"kestrel-demo-not-a-plugin-", u".dll");
    result.path = fl::i18n::to_string(file);
    const RemoveFile removeFile{std::filesystem::u8path(result.path)};
    std::ofstream(removeFile.path) << "This text file is not a library.\n";

    const ChannelLines loaderChannel("kestrel::PluginLoader", 8);
    try {
        const kestrel::PluginLoader plugin(file, kPluginEntryPoint, true, u"");
        throw kestrel::KSException("kestrel-demo:plugin:loaded", "a text file loaded as %s",
                                   result.path.c_str());
    } catch (const kestrel::KSException& e) {
        if (std::string(e.getID()) != "corvane:plugin:pluginNotLoaded") {
            throw;
        }
        result.failure = std::string(e.getID()) + ": " + e.getMessage();
        result.reason = kestrel::PluginLoader::getLastLoadFailureReason();
    }
    result.loaderLines = loaderChannel.lines();
    return result;
}

bool allDone(const demo::Job* jobs, std::size_t count) {
    return std::all_of(jobs, jobs + count, [](const demo::Job& job) { return job.done; });
}

// Throws unless the numbers add up: every event handed over met exactly one
// fate, and every job delivered all of its blocks and progress.
void checkAccounts(const demo::Ledger& ledger, const demo::Job* jobs, std::size_t count) {
    const int handed = ledger.postedToManager + ledger.postedToThread + ledger.servicedAtOnce;
    const int fates = ledger.executedOnMain + ledger.executedOnThread + ledger.coalesced +
                      ledger.flushed + ledger.discarded;
    if (handed != ledger.created || fates != ledger.destroyed ||
        ledger.created != ledger.destroyed || ledger.discarded != 0) {
        throw kestrel::KSException("kestrel-demo:report:unbalanced",
                                   "events created %d, handed over %d, destroyed %d, fates %d, "
                                   "discarded %d",
                                   ledger.created.load(), handed, ledger.destroyed.load(), fates,
                                   ledger.discarded.load());
    }
    for (std::size_t i = 0; i < count; ++i) {
        const demo::Job& job = jobs[i];
        if (!job.done || job.progress != job.blocks || job.progressUpdates != job.blocks) {
            throw kestrel::KSException("kestrel-demo:report:jobIncomplete",
                                       "job %s: progress %d of %d, %d updates delivered",
                                       job.name.c_str(), job.progress, job.blocks,
                                       job.progressUpdates);
        }
    }
}

double median(std::vector<double> values) {
    if (values.empty()) {
        return 0.0;
    }
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// What the debug file holds: its first records, how many there are, and
// from how many threads.
struct DebugFileSummary {
    std::vector<std::string> firstRecords;
    int records = 0;
    std::size_t threads = 0;
};

DebugFileSummary summarise(const std::string& fileName, std::size_t firstCount) {
    DebugFileSummary summary;
    std::set<std::string> threads;
    std::ifstream file(fileName);
    std::string line;
    while (std::getline(file, line)) {
        if (line.empty()) {
            continue;  // the banner is followed by blank lines
        }
        ++summary.records;
        if (summary.firstRecords.size() < firstCount) {
            summary.firstRecords.push_back(line);
        }
        const std::size_t tag = line.find("(thread: ");
        if (tag != std::string::npos) {
            threads.insert(line.substr(tag, line.find(')', tag) - tag));
        }
    }
    summary.threads = threads.size();
    return summary;
}

// The texts of the info log's records, newest first.
std::vector<std::string> newestNotes(const kestrel::EventInfoLog& infoLog) {
    std::vector<std::string> notes;
    // The enumerator holds the log's lock until it is deleted.
    const std::unique_ptr<kestrel::TLockingEnumerator<std::list<kestrel::IEventInfo*>>> records(
        infoLog.getLockingEnumerator());
    for (; !records->isAtEnd(); records->next()) {
        const auto* note = static_cast<const demo::NoteInfo*>(records->getCurrent());
        notes.insert(notes.begin(), std::string(note->getEventTypeName()) + ": " + note->text);
    }
    return notes;
}

// The demo leaves no file behind: the debug file goes once the log has
// closed it, unless the run failed, when it is kept for a look.
struct DebugFileCleanup {
    ~DebugFileCleanup() {
        if (fileName.empty()) {
            return;
        }
        if (succeeded) {
            std::remove(fileName.c_str());
        } else {
            std::fprintf(stderr, "kestrel-demo: debug file kept: %s\n", fileName.c_str());
        }
    }
    std::string fileName;
    bool succeeded = false;
};

int runDemo() {
    // The demo routes the diagnostic channels into its report itself
    // (ChannelLines), so the default standard-error sink goes.
    foundation::log::remove_default_sink();
    const kestrel::ElapsedTimer runTime;
    DebugFileCleanup debugFileCleanup;  // runs after the log has closed the file
    // Unbuffered, so that the file is complete even if the demo dies.
    kestrel::KSDebugLog debugLog("kestrel-demo-", /*buffered=*/false);
    debugFileCleanup.fileName = debugLog.getFileName();
    demo::DebugRecorder recorder(debugLog);
    recorder.record("main thread: kestrel-demo starting");
    std::printf(
        "kestrel-demo: three jobs on worker threads, an event thread, a %.0f ms timer and "
        "a plugin\n",
        kTimerPeriod * 1000.0);

    // Declared in the order they may be used in: each object outlives those
    // declared after it, also when the demo fails half way.
    demo::Ledger ledger;
    kestrel::Event wake;  // auto reset
    kestrel::EventInfoLog infoLog(kInfoLogLimit);

    // The road of one event begins here: the event manager belongs to this
    // thread, and its handler wakes this thread's loop.
    kestrel::EventManager* const manager =
        kestrel::EventManager::createInstance(new WakeMainLoop(wake, ledger));
    const EventManagerScope managerScope;  // destroyed after the threads below

    // On the manager's own thread, serviceEvent(true) runs the event at once.
    ++ledger.servicedAtOnce;
    (new demo::NoteEvent(ledger, "DemoStarted", "the main thread owns the event manager", infoLog,
                         recorder))
        ->serviceEvent(true);

    const PluginResult plugin = loadPlugin(recorder);
    const BrokenPluginResult brokenPlugin = loadBrokenPlugin();
    ++ledger.servicedAtOnce;
    (new demo::NoteEvent(ledger, "PluginLoaded", plugin.greeting, infoLog, recorder))
        ->serviceEvent(true);

    demo::Job prefetch("prefetch", kPrefetchBlocks);
    demo::Job jobs[] = {{"alpha", 60}, {"beta", 90}, {"gamma", 120}};
    constexpr std::size_t jobCount = sizeof jobs / sizeof jobs[0];

    // The event thread runs what is still queued when it is stopped.
    kestrel::EventThread checksummer(kestrel::EventThread::PROCESS_PENDING_EVENTS);
    demo::FrameTimer timer(kTimerPeriod, wake);
    if (!checksummer.start() || !timer.start()) {
        throw kestrel::KSException("kestrel-demo:threads:noThread", "cannot start a thread");
    }

    // A prefetch, queued on the event thread and cancelled at once: the blocks
    // the event thread has not taken yet are flushed, unexecuted.
    for (int i = 0; i < kPrefetchBlocks; ++i) {
        ++ledger.postedToThread;
        (new demo::BlockEvent(ledger, prefetch, demo::makeBlock(prefetch.name, i), false, infoLog,
                              recorder))
            ->postEvent(checksummer);
    }
    kestrel::IEvent::flushEvents(checksummer, demo::BlocksOfJob(prefetch));
    recorder.record("main thread: prefetch cancelled");

    std::vector<std::unique_ptr<demo::JobThread>> workers;
    for (demo::Job& job : jobs) {
        workers.push_back(
            std::make_unique<demo::JobThread>(job, checksummer, ledger, infoLog, recorder));
        if (!workers.back()->start()) {
            throw kestrel::KSException("kestrel-demo:threads:noThread", "cannot start job %s",
                                       job.name.c_str());
        }
    }

    // The main loop: wait for a wake-up, process what is queued, draw a frame.
    int frames = 0;
    std::vector<bool> reported(jobCount, false);
    while (!allDone(jobs, jobCount)) {
        if (runTime.getElapsedTime() > kDeadline) {
            throw kestrel::KSException("kestrel-demo:run:timeout",
                                       "the jobs did not finish within %.0f seconds", kDeadline);
        }
        wake.wait();
        manager->processEvents();
        for (std::size_t i = 0; i < jobCount; ++i) {
            if (jobs[i].done && !reported[i]) {
                reported[i] = true;
                std::printf("  job %-5s done after %.2f s\n", jobs[i].name.c_str(),
                            runTime.getElapsedTime());
            }
        }
        kestrel::Thread::sleep(kFrameWork);
        ++frames;
    }

    // Shut down in order: the producers, then the event thread (which runs
    // what is still queued), then the timer; finally the last updates.
    for (const auto& worker : workers) {
        worker->stop();
    }
    checksummer.stop();
    timer.stop();
    manager->processEvents();
    recorder.record("main thread: all threads stopped after %d frames", frames);
    checkAccounts(ledger, jobs, jobCount);

    // The report.
    const double seconds = runTime.getElapsedTime();
    std::printf("\nkestrel-demo report (%.2f s, %d frames)\n", seconds, frames);
    std::printf("\nEvents\n");
    // The queues' own counts; events serviced at once never reach a queue.
    const kestrel::EventQueue::Counters onMain = manager->getCounters();
    const kestrel::EventThread::Counters onThread = checksummer.getCounters();
    const auto count = [](std::uint64_t n) { return static_cast<unsigned long long>(n); };
    std::printf(
        "  posted     %5llu  (%llu to the event manager, %llu to the event thread;"
        " %d more serviced at once)\n",
        count(onMain.posted + onThread.posted), count(onMain.posted), count(onThread.posted),
        ledger.servicedAtOnce.load());
    std::printf("  executed   %5llu  (%llu on the main thread, %llu on the event thread)\n",
                count(onMain.executed + onThread.executed), count(onMain.executed),
                count(onThread.executed));
    std::printf("  coalesced  %5llu  (progress updates replaced by newer ones while queued)\n",
                count(onMain.coalesced + onThread.coalesced));
    std::printf("  flushed    %5llu  (of %d prefetch blocks, cancelled on the event thread)\n",
                count(onMain.flushed + onThread.flushed), kPrefetchBlocks);
    // Flushes without service count as discarded too.
    std::printf("  lost       %5llu  (every event accounted for; handler woke the loop %d times)\n",
                count(onMain.discarded + onThread.discarded - onMain.flushed - onThread.flushed),
                ledger.wakeUps.load());
    for (const demo::Job& job : jobs) {
        std::printf("  job %-6s %3d blocks, checksum %08x, %3d progress posts in %2d events\n",
                    job.name.c_str(), job.blocks, job.checksum.load(), job.progressUpdates,
                    job.progressEvents);
    }

    std::vector<double> lateness = timer.lateness();
    const double latest =
        lateness.empty() ? 0.0 : *std::max_element(lateness.begin(), lateness.end());
    std::printf("\nTimer (every %.0f ms, fixed rate)\n", kTimerPeriod * 1000.0);
    std::printf("  executions %5d\n", timer.getExecutions());
    std::printf(
        "  lateness   median %.2f ms, max %.2f ms (each run is due 0.5 ms after its"
        " scheduled time)\n",
        median(lateness) * 1000.0, latest * 1000.0);

    std::printf("\nPlugin\n");
    std::printf("  path       %s\n", kPluginPath);
    std::printf("  resolved   %s\n", fl::i18n::to_string(plugin.resolvedPath).c_str());
    std::printf("  loaded     yes; %s() returned \"%s\"\n", kPluginEntryPoint,
                plugin.greeting.c_str());
    for (const std::string& line : plugin.loaderLines) {
        std::printf("  loader     %s\n", line.c_str());
    }
    std::printf("  broken     %s (a text file, removed again)\n", brokenPlugin.path.c_str());
    std::printf("  failed     %s\n", brokenPlugin.failure.c_str());
    std::printf("  reason     %s\n", brokenPlugin.reason.c_str());
    for (const std::string& line : brokenPlugin.loaderLines) {
        std::printf("  loader     %s\n", line.c_str());
    }

    const DebugFileSummary debugFile = summarise(debugLog.getFileName(), 4);
    std::printf("\nDebug file  %s (deleted when the demo ends)\n", debugLog.getFileName().c_str());
    for (const std::string& line : debugFile.firstRecords) {
        std::printf("  %s\n", line.c_str());
    }
    std::printf("  ... %d records from %zu threads\n", debugFile.records, debugFile.threads);

    std::printf("\nEvent info log (limit %d): %d of %d notes kept, newest first\n",
                infoLog.getMaxToLog(), infoLog.getNumberLogged(), ledger.notes.load());
    for (const std::string& note : newestNotes(infoLog)) {
        std::printf("  %s\n", note.c_str());
    }
    debugFileCleanup.succeeded = true;
    return 0;
}

}  // namespace

int main() {
    try {
        return runDemo();
    } catch (const kestrel::KSException& e) {
        std::fprintf(stderr, "kestrel-demo: failed: %s: %s\n", e.getID(), e.getMessage());
    } catch (const std::exception& e) {
        std::fprintf(stderr, "kestrel-demo: failed: %s\n", e.what());
    }
    return 1;
}
