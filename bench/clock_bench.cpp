// Workload 5: taking the current time, from one and from two threads at once.
// The last peer is the shape of a calibrated clock done plainly: a
// std::recursive_mutex held around a wall-clock and a monotonic-clock read.
//
// kestrel's clock works in phases: tracking (the first 300 s after
// calibration, and 300 s after each blend), sampling (60 s) and blending
// (60 s). "kestrel Timestamp()" is a freshly calibrated clock; the other
// kestrel rows put the process clock into a later phase first, by letting it
// read the system clocks shifted forward (through the clock's test seam), so
// that a run of a few minutes shows what a process sees over hours.
#include <Poco/Timestamp.h>
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <ctime>
#include <mutex>
#include <string>

#include "bench_support.h"
#include "kestrel/time.h"
#include "time/process_clock.h"
#include "workloads.h"

namespace kestrel_bench {

namespace {

// The system clocks, both moved forward by an adjustable shift.
class ShiftedSystemClocks final : public kestrel::detail::ClockSources {
  public:
    void shift(double seconds) { _shift += std::llround(seconds * 1e9); }
    void clearShift() { _shift = 0; }
    std::int64_t wallTicks() override {
        const auto now = std::chrono::system_clock::now().time_since_epoch();
        return std::chrono::duration_cast<std::chrono::nanoseconds>(now).count() / 100 +
               _shift.load(std::memory_order_relaxed) / 100;
    }
    std::int64_t wallTicksAtTimeZero() override { return 0; }
    std::int64_t steadyNanoseconds() override {
        const auto now = std::chrono::steady_clock::now().time_since_epoch();
        return std::chrono::duration_cast<std::chrono::nanoseconds>(now).count() +
               _shift.load(std::memory_order_relaxed);
    }

  private:
    std::atomic<std::int64_t> _shift{0};
};

enum class ClockPhase { Fresh, LaterTracking, Sampling, Blending };

// Recalibrates the process clock and walks it into phase. False if the clock
// did not end up in the expected state.
bool enterPhase(ClockPhase phase) {
    static ShiftedSystemClocks shifted;
    using kestrel::detail::getProcessClockStateForTesting;
    using kestrel::detail::setProcessClockSourcesForTesting;
    if (phase == ClockPhase::Fresh) {
        setProcessClockSourcesForTesting(nullptr);
        kestrel::Timestamp();
        return getProcessClockStateForTesting() == 1;
    }
    shifted.clearShift();
    setProcessClockSourcesForTesting(&shifted);
    kestrel::Timestamp();  // calibrates: tracking until 300 s
    shifted.shift(301.0);
    for (int i = 0; i <= 30; ++i) {
        kestrel::Timestamp();  // sampling until 361 s, 30 samples
    }
    if (phase == ClockPhase::Sampling) {
        return getProcessClockStateForTesting() == 2;
    }
    shifted.shift(61.0);
    kestrel::Timestamp();  // blending until 422 s
    if (phase == ClockPhase::Blending) {
        return getProcessClockStateForTesting() == 3;
    }
    shifted.shift(61.0);
    kestrel::Timestamp();  // tracking again, with the jump check, until 723 s
    return getProcessClockStateForTesting() == 1;
}

void kestrelTimestamp(benchmark::State& state, ClockPhase phase) {
    if (state.thread_index() == 0 && !enterPhase(phase)) {
        state.SkipWithError("the process clock did not reach the phase");
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(kestrel::Timestamp().getTime());
    }
    if (state.thread_index() == 0) {
        kestrel::detail::setProcessClockSourcesForTesting(nullptr);
    }
}

void clockGettime(benchmark::State& state) {
    for (auto _ : state) {
        timespec now{};
        ::clock_gettime(CLOCK_REALTIME, &now);
        benchmark::DoNotOptimize(now);
    }
}

void systemClockNow(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(std::chrono::system_clock::now());
    }
}

void pocoTimestamp(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(Poco::Timestamp().epochMicroseconds());
    }
}

std::recursive_mutex clockLock;

void lockedTwoReads(benchmark::State& state) {
    for (auto _ : state) {
        timespec wall{};
        timespec steady{};
        {
            const std::lock_guard<std::recursive_mutex> lock(clockLock);
            ::clock_gettime(CLOCK_REALTIME, &wall);
            ::clock_gettime(CLOCK_MONOTONIC, &steady);
        }
        benchmark::DoNotOptimize(wall);
        benchmark::DoNotOptimize(steady);
    }
}

template <typename Function, typename... Args>
void registerOne(const char* contender, Function function, Args... args) {
    const std::string name = std::string("clock/now/") + contender;
    benchmark::RegisterBenchmark(name.c_str(), function, args...)
        ->Threads(1)
        ->Threads(2)
        ->UseRealTime()
        ->MinTime(minTime(0.2));
}

}  // namespace

void registerClockWorkload() {
    registerOne("kestrel Timestamp()", kestrelTimestamp, ClockPhase::Fresh);
    registerOne("kestrel Timestamp(), tracking after 300 s", kestrelTimestamp,
                ClockPhase::LaterTracking);
    registerOne("kestrel Timestamp(), sampling phase", kestrelTimestamp, ClockPhase::Sampling);
    registerOne("kestrel Timestamp(), blending phase", kestrelTimestamp, ClockPhase::Blending);
    registerOne("clock_gettime", clockGettime);
    registerOne("std::chrono::system_clock::now", systemClockNow);
    registerOne("Poco::Timestamp", pocoTimestamp);
    registerOne("recursive_mutex + 2 clock reads", lockedTwoReads);
}

}  // namespace kestrel_bench
