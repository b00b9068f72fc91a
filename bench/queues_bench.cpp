// Workloads 1 to 3: handing small pieces of work to one consumer thread.
// The contenders (kestrel EventThread, Asio, POCO, a hand-written std queue)
// are described in consumers.h.
#include <benchmark/benchmark.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench_support.h"
#include "consumers.h"
#include "kestrel/events.h"
#include "workloads.h"

namespace kestrel_bench {

namespace {

// Runs producers threads, each calling produce(index) once, and waits for
// them.
template <typename Produce>
void runProducers(int producers, Produce produce) {
    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p) {
        threads.emplace_back([&produce, p] { produce(p); });
    }
    for (std::thread& t : threads) {
        t.join();
    }
}

// ---- 1: throughput ----

// Counts executions on the consumer thread and reports the last one.
struct Sink {
    std::uint64_t executed = 0;  // only touched on the consumer thread
    std::uint64_t target = 0;
    Completion done;
    void hit() {
        if (++executed == target) {
            done.set();
        }
    }
};

// Each benchmark of workloads 1 and 2 runs one iteration: start the consumer
// (untimed), let the producers post everything and wait until the consumer
// has seen the last task, stop the consumer (untimed).
template <typename Consumer>
void throughput(benchmark::State& state) {
    const int producers = static_cast<int>(state.range(0));
    const std::uint64_t perProducer = sizes().events / static_cast<std::uint64_t>(producers);
    const std::uint64_t total = perProducer * static_cast<std::uint64_t>(producers);
    Consumer consumer;
    Sink sink;
    sink.target = total;
    consumer.start();
    for (auto _ : state) {
        runProducers(producers, [&](int) {
            for (std::uint64_t i = 0; i < perProducer; ++i) {
                consumer.post([&sink] { sink.hit(); });
            }
        });
        sink.done.wait();
    }
    consumer.stop();
    state.SetItemsProcessed(static_cast<std::int64_t>(total));
}

// ---- 2: coalescing ----

// The consumer's view of the jobs: the last progress seen for each.
struct ProgressBoard {
    std::vector<std::uint64_t> progress;  // only touched on the consumer thread
    std::uint64_t finalProgress = 0;
    int finished = 0;
    std::uint64_t executions = 0;
    Completion done;

    void update(int job, std::uint64_t value) {
        ++executions;
        progress[static_cast<std::size_t>(job)] = value;
        if (value == finalProgress && ++finished == static_cast<int>(progress.size())) {
            done.set();
        }
    }
};

// A progress update that replaces a queued update of the same job.
class ProgressEvent final : public kestrel::IEvent {
  public:
    ProgressEvent(ProgressBoard& board, int job, std::uint64_t value)
        : _board(board), _job(job), _value(value) {}

    void post(kestrel::EventThread& thread) {
        const SameJob match(_job);
        postOrCoalesceEvent(thread, &match, nullptr);
    }

  private:
    // Every event on the thread of this workload is a ProgressEvent.
    class SameJob final : public kestrel::IMatchEventFcn {
      public:
        explicit SameJob(int job) : _job(job) {}
        bool operator()(kestrel::IEvent* queued) const override {
            return static_cast<ProgressEvent*>(queued)->_job == _job;
        }

      private:
        int _job;
    };

    bool execute() override {
        _board.update(_job, _value);
        return true;
    }

    ProgressBoard& _board;
    int _job;
    std::uint64_t _value;
};

struct KestrelCoalescing {
    static void post(KestrelConsumer& consumer, ProgressBoard& board, int job,
                     std::uint64_t value) {
        (new ProgressEvent(board, job, value))->post(consumer.thread());
    }
};

struct PlainPosting {
    template <typename Consumer>
    static void post(Consumer& consumer, ProgressBoard& board, int job, std::uint64_t value) {
        consumer.post([&board, job, value] { board.update(job, value); });
    }
};

// Producer p posts the updates of the jobs j with j % producers == p, round
// after round, each round raising every job's progress by one.
template <typename Consumer, typename Posting>
void coalescing(benchmark::State& state) {
    const int producers = static_cast<int>(state.range(0));
    const int jobs = sizes().jobs;
    const std::uint64_t rounds = sizes().events / static_cast<std::uint64_t>(jobs);
    Consumer consumer;
    ProgressBoard board;
    board.progress.assign(static_cast<std::size_t>(jobs), 0);
    board.finalProgress = rounds;
    consumer.start();
    for (auto _ : state) {
        runProducers(producers, [&](int p) {
            for (std::uint64_t round = 1; round <= rounds; ++round) {
                for (int job = p; job < jobs; job += producers) {
                    Posting::post(consumer, board, job, round);
                }
            }
        });
        board.done.wait();
    }
    consumer.stop();
    state.SetItemsProcessed(static_cast<std::int64_t>(rounds) * jobs);
    state.counters["executions"] = static_cast<double>(board.executions);
}

// ---- 3: post-to-execute latency ----

struct Probe {
    SteadyClock::time_point executedAt;
    std::atomic<bool> executed{false};
};

// Keeps the consumer thread awake: runs, and posts itself again until
// switched off.
template <typename Consumer>
struct KeepBusy {
    Consumer* consumer;
    std::atomic<bool>* on;
    void operator()() const {
        if (on->load(std::memory_order_relaxed)) {
            consumer->post(*this);
        }
    }
};

// One probe per iteration, timed from just before the post to the start of
// its execution. busy: the consumer is kept awake by a task that reposts
// itself; idle: the consumer has had 3 to 5 ms without work (random, so that
// any periodic wake-up of the consumer is met at every phase).
template <typename Consumer>
void latency(benchmark::State& state) {
    const bool busy = state.range(0) != 0;
    Consumer consumer;
    consumer.start();
    std::atomic<bool> keepBusy{busy};
    if (busy) {
        consumer.post(KeepBusy<Consumer>{&consumer, &keepBusy});
    }
    std::minstd_rand random(12345);
    std::uniform_int_distribution<int> idleMicros(3000, 5000);
    std::vector<double> samples;
    samples.reserve(static_cast<std::size_t>(state.max_iterations));
    for (auto _ : state) {
        if (!busy) {
            std::this_thread::sleep_for(std::chrono::microseconds(idleMicros(random)));
        }
        Probe probe;
        const SteadyClock::time_point postedAt = SteadyClock::now();
        consumer.post([&probe] {
            probe.executedAt = SteadyClock::now();
            probe.executed.store(true, std::memory_order_release);
        });
        spinUntil([&probe] { return probe.executed.load(std::memory_order_acquire); });
        const double seconds = secondsBetween(postedAt, probe.executedAt);
        state.SetIterationTime(seconds);
        samples.push_back(seconds * 1e6);
    }
    keepBusy = false;
    consumer.stop();
    state.counters["p50_us"] = quantile(samples, 0.5);
    state.counters["p99_us"] = quantile(samples, 0.99);
}

// ---- registration ----

template <typename Consumer>
void registerThroughput() {
    for (int producers : {1, 2}) {
        const std::string name =
            "throughput/producers:" + std::to_string(producers) + "/" + Consumer::kName;
        benchmark::RegisterBenchmark(name.c_str(), throughput<Consumer>)
            ->Arg(producers)
            ->Iterations(1)
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond);
    }
}

template <typename Consumer, typename Posting>
void registerCoalescing() {
    for (int producers : {1, 2}) {
        const std::string name =
            "coalescing/producers:" + std::to_string(producers) + "/" + Consumer::kName;
        benchmark::RegisterBenchmark(name.c_str(), coalescing<Consumer, Posting>)
            ->Arg(producers)
            ->Iterations(1)
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond);
    }
}

template <typename Consumer>
void registerLatency() {
    for (int busy : {1, 0}) {
        const std::string name =
            std::string("latency/") + (busy != 0 ? "busy" : "idle") + "/" + Consumer::kName;
        benchmark::RegisterBenchmark(name.c_str(), latency<Consumer>)
            ->Arg(busy)
            ->Iterations(busy != 0 ? sizes().busyLatencySamples : sizes().idleLatencySamples)
            ->UseManualTime()
            ->Unit(benchmark::kMicrosecond);
    }
}

}  // namespace

void registerQueueWorkloads() {
    registerThroughput<KestrelConsumer>();
    registerThroughput<AsioConsumer>();
    registerThroughput<PocoConsumer>();
    registerThroughput<StdConsumer>();
    registerThroughput<AllocatingStdConsumer>();

    registerCoalescing<KestrelConsumer, KestrelCoalescing>();
    registerCoalescing<AsioConsumer, PlainPosting>();
    registerCoalescing<PocoConsumer, PlainPosting>();
    registerCoalescing<StdConsumer, PlainPosting>();

    registerLatency<KestrelConsumer>();
    registerLatency<AsioConsumer>();
    registerLatency<PocoConsumer>();
    registerLatency<StdConsumer>();
}

}  // namespace kestrel_bench
