// Helpers shared by the benchmark workloads: the sizes of a full and of a
// smoke run, a one-shot completion flag, percentiles and the clock every
// contender is measured with.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

namespace kestrel_bench {

// How big each workload is. A smoke run (--smoke) shrinks everything so that
// the whole binary runs in a few seconds as a test.
struct Sizes {
    std::uint64_t events = 1000000;  // throughput and coalescing posts
    int jobs = 100;                  // coalescing: distinct jobs
    int busyLatencySamples = 2000;   // probes into a busy thread
    int idleLatencySamples = 150;    // probes into an idle thread
    int timerTicks = 200;            // timer workload
};

Sizes& sizes();
bool isSmokeRun();

// The minimum time of a benchmark with automatic iteration counts; a smoke
// run takes a token time instead.
inline double minTime(double seconds) {
    return isSmokeRun() ? 0.001 : seconds;
}

using SteadyClock = std::chrono::steady_clock;

inline double secondsBetween(SteadyClock::time_point from, SteadyClock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

// Set once by one thread, waited for by another.
class Completion {
  public:
    void set() {
        {
            std::lock_guard<std::mutex> lock(_mutex);
            _done = true;
        }
        _condition.notify_all();
    }
    void wait() {
        std::unique_lock<std::mutex> lock(_mutex);
        _condition.wait(lock, [this] { return _done; });
    }

  private:
    std::mutex _mutex;
    std::condition_variable _condition;
    bool _done = false;  // guarded by _mutex
};

// Waits for a flag that another core sets soon: spins briefly, then yields,
// so that a loaded two-core machine is not starved by the waiting thread.
template <typename Predicate>
void spinUntil(Predicate done) {
    for (int i = 0; !done(); ++i) {
        if (i > 200) {
            std::this_thread::yield();
        }
    }
}

// The q-quantile (0..1) of values by the nearest-rank method; sorts values.
inline double quantile(std::vector<double>& values, double q) {
    if (values.empty()) {
        return 0.0;
    }
    std::sort(values.begin(), values.end());
    const double rank = q * static_cast<double>(values.size() - 1);
    return values[static_cast<std::size_t>(rank + 0.5)];
}

// Raises the calling thread by the same two nice steps that a kestrel
// TimerThread takes at HIGH_PRIORITY, so that every timer contender runs at
// the same priority. Does nothing when the process may not do so.
void raiseCurrentThreadLikeTimerThread();

}  // namespace kestrel_bench
