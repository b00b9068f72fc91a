// Workload 5: taking the current time, from one and from two threads at once.
// The last peer is the shape of a calibrated clock done plainly: a
// std::recursive_mutex held around a wall-clock and a monotonic-clock read.
#include <Poco/Timestamp.h>
#include <benchmark/benchmark.h>

#include <chrono>
#include <ctime>
#include <mutex>
#include <string>

#include "bench_support.h"
#include "kestrel/time.h"
#include "workloads.h"

namespace kestrel_bench {

namespace {

void kestrelTimestamp(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(kestrel::Timestamp().getTime());
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

void registerOne(const char* contender, void (*function)(benchmark::State&)) {
    const std::string name = std::string("clock/now/") + contender;
    benchmark::RegisterBenchmark(name.c_str(), function)
        ->Threads(1)
        ->Threads(2)
        ->UseRealTime()
        ->MinTime(minTime(0.2));
}

}  // namespace

void registerClockWorkload() {
    registerOne("kestrel Timestamp()", kestrelTimestamp);
    registerOne("clock_gettime", clockGettime);
    registerOne("std::chrono::system_clock::now", systemClockNow);
    registerOne("Poco::Timestamp", pocoTimestamp);
    registerOne("recursive_mutex + 2 clock reads", lockedTwoReads);
}

}  // namespace kestrel_bench
