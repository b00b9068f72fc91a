// Workload 7: one plugin load cycle (load the library, look up its entry
// point, unload it) of the same small module, through a PluginReference and
// through the dynamic loader directly. The library is really unloaded at the
// end of each cycle, so every cycle maps and relocates it afresh.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <fl/i18n.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "bench_support.h"
#include "kestrel/plugins.h"
#include "workloads.h"

namespace kestrel_bench {

namespace {

const char* const kPluginPath = KESTREL_BENCH_PLUGIN_PATH;
const char* const kEntryPoint = "kestrelBenchEntry";

using EntryFunction = int (*)();

void kestrelPluginReference(benchmark::State& state) {
    const kestrel::ustring path = fl::i18n::to_ustring(std::string(kPluginPath));
    const kestrel::ustring noSearchPath;
    for (auto _ : state) {
        kestrel::PluginReference reference(true,
                                           std::make_unique<kestrel::NoOpVerificationStrategy>());
        reference.load(path, kEntryPoint, noSearchPath);
        benchmark::DoNotOptimize(reference.getEntryPointFcn());
    }
    kestrel::PluginReference check(true, nullptr);
    check.load(path, kEntryPoint, noSearchPath);
    if (reinterpret_cast<EntryFunction>(check.getEntryPointFcn())() != 7) {
        state.SkipWithError("the plugin's entry point gave a wrong answer");
    }
}

void rawDlopen(benchmark::State& state) {
    const int flags = static_cast<int>(state.range(0));
    for (auto _ : state) {
        void* library = ::dlopen(kPluginPath, flags);
        if (library == nullptr) {
            state.SkipWithError("dlopen failed");
            break;
        }
        benchmark::DoNotOptimize(::dlsym(library, kEntryPoint));
        ::dlclose(library);
    }
}

}  // namespace

void registerPluginWorkload() {
    benchmark::RegisterBenchmark("plugin/load cycle/kestrel PluginReference",
                                 kestrelPluginReference)
        ->UseRealTime()
        ->MinTime(minTime(0.2))
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("plugin/load cycle/dlopen RTLD_NOW", rawDlopen)
        ->Arg(RTLD_NOW)
        ->UseRealTime()
        ->MinTime(minTime(0.2))
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("plugin/load cycle/dlopen RTLD_NOW|RTLD_GLOBAL", rawDlopen)
        ->Arg(RTLD_NOW | RTLD_GLOBAL)
        ->UseRealTime()
        ->MinTime(minTime(0.2))
        ->Unit(benchmark::kMicrosecond);
}

}  // namespace kestrel_bench
