// Workload 6: a periodic action at a fixed rate of 2 ms and of 5 ms, 200
// ticks. Each tick records its lateness, the time it ran minus the time it
// was due (negative: it ran early), and the drift is the time between the
// first and the last tick minus the nominal 199 periods. Between the first
// and the last tick the timer thread's own CPU time and context switches
// are read (getrusage of the thread): CPU in percent of one core, and
// wake-ups per tick (one is the least a sleeping timer can do). Every timer
// thread runs two nice steps above normal, as a kestrel TimerThread does at
// HIGH_PRIORITY (where the process may raise priorities).
//
//   kestrel  TimerThread in FIXED_RATE mode; due times from
//            getExecutionTime(), measured on the timer's own clock
//            (Timestamp). It wakes 0.5 ms after each due time by design;
//            "beyond margin" subtracts that;
//   poco     Poco::Timer with a 5 ms periodic interval (skipped invocations
//            are accounted for);
//   asio     boost::asio::steady_timer re-armed on absolute deadlines;
//   sleep    a thread sleeping with std::this_thread::sleep_until on
//            absolute deadlines.
#include <Poco/Timer.h>
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/system/error_code.hpp>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "bench_support.h"
#include "kestrel/threads.h"
#include "workloads.h"

namespace kestrel_bench {

namespace {

// The ticks of one run, recorded on the timer's thread.
class TickLog {
  public:
    explicit TickLog(int ticks) : _ticks(ticks) {
        _lateness.reserve(static_cast<std::size_t>(ticks));
    }
    // lateness and at in seconds; at on any clock that runs at real rate.
    void record(double lateness, double at) {
        if (static_cast<int>(_lateness.size()) == _ticks) {
            return;
        }
        _lateness.push_back(lateness);
        if (_lateness.size() == 1) {
            _first = at;
            _firstUsage = threadUsage();
        }
        _last = at;
        if (static_cast<int>(_lateness.size()) == _ticks) {
            _lastUsage = threadUsage();
        }
        if (static_cast<int>(_lateness.size()) == _ticks) {
            _done.set();
        }
    }
    void waitUntilComplete() { _done.wait(); }

    void report(benchmark::State& state, double period) {
        const double drift = (_last - _first) - static_cast<double>(_ticks - 1) * period;
        std::vector<double> micros;
        for (double seconds : _lateness) {
            micros.push_back(seconds * 1e6);
        }
        state.counters["p50_us"] = quantile(micros, 0.5);
        state.counters["p99_us"] = quantile(micros, 0.99);
        state.counters["earliest_us"] = quantile(micros, 0.0);
        state.counters["drift_us"] = drift * 1e6;
        if (_last > _first) {
            state.counters["cpu_pct"] =
                100.0 * (_lastUsage.cpuSeconds - _firstUsage.cpuSeconds) / (_last - _first);
            state.counters["wakeups_per_tick"] =
                static_cast<double>(_lastUsage.switches - _firstUsage.switches) /
                static_cast<double>(_ticks - 1);
        }
    }

  private:
    // CPU time and context switches of the calling thread so far.
    struct Usage {
        double cpuSeconds = 0.0;
        long switches = 0;
    };
    static Usage threadUsage() {
        rusage usage{};
        getrusage(RUSAGE_THREAD, &usage);
        const auto seconds = [](const timeval& t) {
            return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) * 1e-6;
        };
        return {seconds(usage.ru_utime) + seconds(usage.ru_stime),
                usage.ru_nvcsw + usage.ru_nivcsw};
    }

    int _ticks;
    std::vector<double> _lateness;
    double _first = 0.0;
    double _last = 0.0;
    Usage _firstUsage;
    Usage _lastUsage;
    Completion _done;
};

double periodOf(const benchmark::State& state) {
    return static_cast<double>(state.range(0)) * 1e-6;
}

double steadySeconds() {
    return std::chrono::duration<double>(SteadyClock::now().time_since_epoch()).count();
}

class KestrelTicker final : public kestrel::TimerThread {
  public:
    KestrelTicker(double period, TickLog& log) : TimerThread(FIXED_RATE, period), _log(log) {}
    ~KestrelTicker() override { stop(); }

  private:
    void executing() override {
        const double now = kestrel::Timestamp().getTime();
        _log.record(now - getExecutionTime().getTime(), now);
    }
    TickLog& _log;
};

void kestrelTimer(benchmark::State& state) {
    const double period = periodOf(state);
    TickLog log(sizes().timerTicks);
    KestrelTicker ticker(period, log);
    for (auto _ : state) {
        ticker.start();
        log.waitUntilComplete();
        ticker.stop();
    }
    log.report(state, period);
}

class PocoTicker {
  public:
    PocoTicker(double period, TickLog& log) : _period(period), _log(log) {}
    void anchor() { _anchor = steadySeconds(); }
    void onTimer(Poco::Timer& timer) {
        const double now = steadySeconds();
        if (_tick == 0) {
            raiseCurrentThreadLikeTimerThread();
        }
        _tick += 1 + timer.skipped();
        _log.record(now - (_anchor + static_cast<double>(_tick) * _period), now);
    }

  private:
    double _period;
    TickLog& _log;
    double _anchor = 0.0;
    long _tick = 0;
};

void pocoTimer(benchmark::State& state) {
    const double period = periodOf(state);
    const long periodMillis = static_cast<long>(period * 1000.0 + 0.5);
    TickLog log(sizes().timerTicks);
    PocoTicker ticker(period, log);
    Poco::Timer timer(periodMillis, periodMillis);
    for (auto _ : state) {
        ticker.anchor();
        timer.start(Poco::TimerCallback<PocoTicker>(ticker, &PocoTicker::onTimer));
        log.waitUntilComplete();
        timer.stop();
    }
    log.report(state, period);
}

void asioTimer(benchmark::State& state) {
    const double period = periodOf(state);
    const auto step =
        std::chrono::duration_cast<SteadyClock::duration>(std::chrono::duration<double>(period));
    TickLog log(sizes().timerTicks);
    boost::asio::io_context io;
    boost::asio::steady_timer timer(io);
    for (auto _ : state) {
        const SteadyClock::time_point anchor = SteadyClock::now();
        int tick = 1;
        std::function<void(const boost::system::error_code&)> onTick =
            [&](const boost::system::error_code& error) {
                if (error) {
                    return;
                }
                const SteadyClock::time_point now = SteadyClock::now();
                log.record(secondsBetween(anchor + tick * step, now), steadySeconds());
                if (++tick <= sizes().timerTicks) {
                    timer.expires_at(anchor + tick * step);
                    timer.async_wait(onTick);
                }
            };
        timer.expires_at(anchor + step);
        timer.async_wait(onTick);
        std::thread runner([&io] {
            raiseCurrentThreadLikeTimerThread();
            io.run();
        });
        log.waitUntilComplete();
        runner.join();
    }
    log.report(state, period);
}

void sleepUntilLoop(benchmark::State& state) {
    const double period = periodOf(state);
    const auto step =
        std::chrono::duration_cast<SteadyClock::duration>(std::chrono::duration<double>(period));
    TickLog log(sizes().timerTicks);
    for (auto _ : state) {
        const SteadyClock::time_point anchor = SteadyClock::now();
        std::thread sleeper([&] {
            raiseCurrentThreadLikeTimerThread();
            for (int tick = 1; tick <= sizes().timerTicks; ++tick) {
                std::this_thread::sleep_until(anchor + tick * step);
                const SteadyClock::time_point now = SteadyClock::now();
                log.record(secondsBetween(anchor + tick * step, now), steadySeconds());
            }
        });
        log.waitUntilComplete();
        sleeper.join();
    }
    log.report(state, period);
}

void registerOne(const char* contender, void (*function)(benchmark::State&)) {
    for (int millis : {2, 5}) {
        const std::string name = "timer/" + std::to_string(millis) + " ms fixed rate/" + contender;
        benchmark::RegisterBenchmark(name.c_str(), function)
            ->Arg(millis * 1000)
            ->Iterations(1)
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond);
    }
}

}  // namespace

void registerTimerWorkload() {
    registerOne("kestrel TimerThread", kestrelTimer);
    registerOne("Poco::Timer", pocoTimer);
    registerOne("asio steady_timer", asioTimer);
    registerOne("sleep_until loop", sleepUntilLoop);
}

}  // namespace kestrel_bench
