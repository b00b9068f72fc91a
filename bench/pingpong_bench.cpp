// Workload 4: two threads bounce a signal between two auto-reset events. One
// iteration is one round trip. The peers build the same auto-reset flag on
// std::condition_variable and boost::condition_variable (set under the lock,
// notify after it), or use Poco::Event.
#include <Poco/Event.h>
#include <benchmark/benchmark.h>

#include <atomic>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/locks.hpp>
#include <boost/thread/mutex.hpp>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "bench_support.h"
#include "kestrel/threads.h"
#include "workloads.h"

namespace kestrel_bench {

namespace {

struct KestrelFlag {
    static constexpr const char* kName = "kestrel Event";
    kestrel::Event event{false, false};
    void signal() { event.signal(); }
    void wait() { event.wait(); }
};

template <typename Mutex, typename Condition, typename Lock>
struct ConditionFlag {
    Mutex mutex;
    Condition condition;
    bool signalled = false;  // guarded by mutex
    void signal() {
        {
            Lock lock(mutex);
            signalled = true;
        }
        condition.notify_one();
    }
    void wait() {
        Lock lock(mutex);
        while (!signalled) {
            condition.wait(lock);
        }
        signalled = false;
    }
};

struct StdFlag : ConditionFlag<std::mutex, std::condition_variable, std::unique_lock<std::mutex>> {
    static constexpr const char* kName = "std::condition_variable";
};

struct BoostFlag
    : ConditionFlag<boost::mutex, boost::condition_variable, boost::unique_lock<boost::mutex>> {
    static constexpr const char* kName = "boost::condition_variable";
};

struct PocoFlag {
    static constexpr const char* kName = "Poco::Event";
    Poco::Event event{Poco::Event::EVENT_AUTORESET};
    void signal() { event.set(); }
    void wait() { event.wait(); }
};

template <typename Flag>
void pingPong(benchmark::State& state) {
    Flag ping;
    Flag pong;
    std::atomic<bool> running{true};
    std::thread responder([&] {
        for (;;) {
            ping.wait();
            if (!running.load(std::memory_order_relaxed)) {
                return;
            }
            pong.signal();
        }
    });
    for (auto _ : state) {
        ping.signal();
        pong.wait();
    }
    running = false;
    ping.signal();
    responder.join();
    state.SetItemsProcessed(state.iterations());
}

template <typename Flag>
void registerOne() {
    const std::string name = std::string("pingpong/round trips/") + Flag::kName;
    benchmark::RegisterBenchmark(name.c_str(), pingPong<Flag>)
        ->UseRealTime()
        ->MinTime(minTime(0.3))
        ->Unit(benchmark::kMicrosecond);
}

}  // namespace

void registerPingPongWorkload() {
    registerOne<KestrelFlag>();
    registerOne<StdFlag>();
    registerOne<PocoFlag>();
    registerOne<BoostFlag>();
}

}  // namespace kestrel_bench
