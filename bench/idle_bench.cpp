// Workload 9: what idle threads cost. 32 consumer threads of one contender
// are started and left without work; over a window of one second the
// process's context switches (each a wake-up of a thread) and its CPU time
// are read from getrusage, less the main thread's own (it sleeps through the
// window once).
//
//   kestrel  32 EventThreads; 32 WorkThreads blocked in wait(Event&) on an
//            event nobody signals;
//   asio     32 io_contexts, each run by one thread and kept alive by a work
//            guard;
//   poco     32 threads in Poco::NotificationQueue::waitDequeueNotification;
//   std      32 threads waiting on a std::condition_variable for a task.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench_support.h"
#include "consumers.h"
#include "kestrel/threads.h"
#include "workloads.h"

namespace kestrel_bench {

namespace {

constexpr int kIdleThreads = 32;

// A work thread that only waits for an event that never comes, until it is
// stopped.
class IdleWorker final : public kestrel::WorkThread {
  public:
    ~IdleWorker() override { stop(); }
    static constexpr const char* kName = "kestrel WorkThread wait(Event&)";

  private:
    void running() override {
        while (wait(_never)) {
        }
    }
    kestrel::Event _never{false, false};
};

struct Usage {
    double cpuSeconds = 0.0;
    long switches = 0;
};

Usage usageOf(int who) {
    rusage usage{};
    getrusage(who, &usage);
    const auto seconds = [](const timeval& t) {
        return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) * 1e-6;
    };
    return {seconds(usage.ru_utime) + seconds(usage.ru_stime), usage.ru_nvcsw + usage.ru_nivcsw};
}

// Starts kIdleThreads consumers, lets them settle, then measures the window.
template <typename Consumer>
void idle(benchmark::State& state) {
    const double window = isSmokeRun() ? 0.05 : 1.0;
    std::vector<std::unique_ptr<Consumer>> consumers;
    for (int i = 0; i < kIdleThreads; ++i) {
        consumers.push_back(std::make_unique<Consumer>());
        consumers.back()->start();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(isSmokeRun() ? 5 : 200));
    double wakeups = 0.0;
    double cpuPercent = 0.0;
    for (auto _ : state) {
        const Usage processBefore = usageOf(RUSAGE_SELF);
        const Usage mainBefore = usageOf(RUSAGE_THREAD);
        const SteadyClock::time_point start = SteadyClock::now();
        std::this_thread::sleep_for(std::chrono::duration<double>(window));
        const double elapsed = secondsBetween(start, SteadyClock::now());
        const Usage processAfter = usageOf(RUSAGE_SELF);
        const Usage mainAfter = usageOf(RUSAGE_THREAD);
        const long switches = (processAfter.switches - processBefore.switches) -
                              (mainAfter.switches - mainBefore.switches);
        const double cpu = (processAfter.cpuSeconds - processBefore.cpuSeconds) -
                           (mainAfter.cpuSeconds - mainBefore.cpuSeconds);
        wakeups = static_cast<double>(switches) / kIdleThreads / elapsed;
        // getrusage counts in clock ticks: a few idle threads can read as
        // a hair below zero.
        cpuPercent = std::max(0.0, 100.0 * cpu / elapsed);
        state.SetIterationTime(elapsed);
    }
    for (auto& consumer : consumers) {
        consumer->stop();
    }
    state.counters["wakeups_per_thread_s"] = wakeups;
    state.counters["cpu_pct"] = cpuPercent;
}

template <typename Consumer>
void registerIdle(const char* name) {
    const std::string full = std::string("idle/32 threads/") + name;
    benchmark::RegisterBenchmark(full.c_str(), idle<Consumer>)
        ->Iterations(1)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
}

}  // namespace

void registerIdleWorkload() {
    registerIdle<KestrelConsumer>(KestrelConsumer::kName);
    registerIdle<IdleWorker>(IdleWorker::kName);
    registerIdle<AsioConsumer>(AsioConsumer::kName);
    registerIdle<PocoConsumer>(PocoConsumer::kName);
    registerIdle<StdConsumer>(StdConsumer::kName);
}

}  // namespace kestrel_bench
