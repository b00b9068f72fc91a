// The benchmark program: every workload with kestrel and its peers in one
// binary, so that interleaved repetitions expose them to the same noise.
//
//   kestrel-bench [--smoke] [Google Benchmark flags...]
//
// --smoke shrinks every workload to a token size and runs each benchmark
// once, briefly: a check that everything still works, not a measurement.
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "bench_support.h"
#include "workloads.h"

namespace kestrel_bench {

namespace {

bool smokeRun = false;

}  // namespace

Sizes& sizes() {
    static Sizes instance;
    return instance;
}

bool isSmokeRun() {
    return smokeRun;
}

void raiseCurrentThreadLikeTimerThread() {
    const auto tid = static_cast<id_t>(::syscall(SYS_gettid));
    errno = 0;
    const int nice = ::getpriority(PRIO_PROCESS, tid);
    if (nice == -1 && errno != 0) {
        return;
    }
    static_cast<void>(::setpriority(PRIO_PROCESS, tid, nice - 2));
}

}  // namespace kestrel_bench

int main(int argc, char** argv) {
    std::vector<char*> args;
    for (int i = 0; i < argc; ++i) {
        if (std::strcmp(argv[i], "--smoke") == 0) {
            kestrel_bench::smokeRun = true;
        } else {
            args.push_back(argv[i]);
        }
    }
    if (kestrel_bench::smokeRun) {
        kestrel_bench::Sizes& s = kestrel_bench::sizes();
        s.events = 2000;
        s.jobs = 10;
        s.busyLatencySamples = 20;
        s.idleLatencySamples = 3;
        s.timerTicks = 4;
    }
    int count = static_cast<int>(args.size());
    args.push_back(nullptr);

    kestrel_bench::registerQueueWorkloads();
    kestrel_bench::registerPingPongWorkload();
    kestrel_bench::registerClockWorkload();
    kestrel_bench::registerTimerWorkload();
    kestrel_bench::registerPluginWorkload();
    kestrel_bench::registerTextWorkload();
    kestrel_bench::registerIdleWorkload();

    benchmark::Initialize(&count, args.data());
    if (benchmark::ReportUnrecognizedArguments(count, args.data())) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
