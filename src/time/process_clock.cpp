#include "time/process_clock.h"

#include <algorithm>
#include <atomic>
#include <boost/chrono/system_clocks.hpp>
#include <cmath>
#include <condition_variable>
#include <cstddef>
#include <ctime>
#include <limits>
#include "core/annotated_mutex.h"
#include "core/recursive_mutex.h"

namespace kestrel {
namespace detail {

namespace {

constexpr double kWallTicksPerSecond = 10000000.0;
constexpr double kNanosecondsPerSecond = 1000000000.0;

// Tracking lasts this long after calibration and after each blend.
constexpr double kTrackingPeriod = 300.0;
// Sampling lasts at least this long, and so does each blend.
constexpr double kPhasePeriod = 60.0;
// Sampling also gathers at least this many ratios.
constexpr std::size_t kMinimumSamples = 30;
// A wall-clock/stopwatch ratio or difference outside these bounds means the
// wall clock was set: blend to it, then recalibrate.
constexpr double kLowestRatio = 0.95;
constexpr double kHighestRatio = 1.05;
constexpr double kLargestDifference = 5.0;

using WallTicks = boost::chrono::duration<std::int64_t, boost::ratio<1, 10000000>>;

class SystemClockSources final : public ClockSources {
  public:
    std::int64_t wallTicks() override { return toTicks(boost::chrono::system_clock::now()); }
    std::int64_t wallTicksAtTimeZero() override {
        return toTicks(boost::chrono::system_clock::from_time_t(std::time_t{0}));
    }
    std::int64_t steadyNanoseconds() override {
        return boost::chrono::duration_cast<boost::chrono::nanoseconds>(
                   boost::chrono::steady_clock::now().time_since_epoch())
            .count();
    }

  private:
    static std::int64_t toTicks(boost::chrono::system_clock::time_point t) {
        return boost::chrono::duration_cast<WallTicks>(t.time_since_epoch()).count();
    }
};

enum CalibrationState : std::int32_t {
    Uncalibrated = 0,  // the next request calibrates
    Tracking = 1,      // the rate is used unchanged
    Sampling = 2,      // each request records one wall-clock/stopwatch ratio
    Blending = 3,      // the rate moves linearly to targetRate
};

// The ratios gathered while sampling, kept as their running sum in the
// order they arrive: the mean is the one of the full list, and memory stays
// constant however many requests a sampling phase sees.
class RatioSamples {
  public:
    void clear() {
        _sum = 0.0;
        _count = 0;
    }
    void add(double ratio) {
        _sum += ratio;
        ++_count;
    }
    std::size_t size() const { return _count; }
    double mean() const { return _sum / static_cast<double>(_count); }

  private:
    double _sum = 0.0;
    std::size_t _count = 0;
};

// The process-wide clock state. Times called x are stopwatch seconds since
// calibration; every member is guarded by calibrationLock, which each
// request holds throughout.
//
// Except in one case: a request in the tracking state that neither reaches
// the deadline nor finds a wall-clock jump changes nothing; it only computes
// baseTime + x * rate. Such requests read a published copy of the state
// instead, without the lock, guarded by a sequence count (a seqlock): every
// locked section makes the count odd before it reads a clock and even again
// once the copy is up to date. A reader whose count did not change has
// computed exactly what a locked request would have at the moment of its
// clock reads; in every other case it takes the lock and runs the full step.
class ClockCalibration {
  public:
    double now() {
        double time = 0.0;
        if (tryUnchangingRequest(time)) {
            return time;
        }
        // A locked request is short: concurrent ones (sampling and blending)
        // retry for a moment rather than put each other to sleep.
        const ScopedLock<RecursiveMutex> guard(calibrationLock);
        const WriteSection section(*this);
        if (state == Uncalibrated) {
            calibrate();
        }
        const double x = stopwatchSeconds();
        return baseTime + rateStep(x);
    }

    double getSystemGranularity() {
        const ScopedLock<RecursiveMutex> guard(calibrationLock);
        const WriteSection section(*this);
        if (state == Uncalibrated) {
            calibrate();
        }
        return systemGranularity;
    }

    // Installs replacement (null: the system clocks) and returns only once
    // no unlocked request can still be reading the sources it replaced.
    void reset(ClockSources* replacement) {
        const std::lock_guard<std::mutex> replacing(replaceLock);
        {
            const ScopedLock<RecursiveMutex> guard(calibrationLock);
            const WriteSection section(*this);
            sources = replacement != nullptr ? replacement : &systemSources;
            // At once, not only when the section publishes: a pinned reader
            // checks this after taking its pin (see SourcePin).
            published.sources.store(sources, std::memory_order_seq_cst);
            state = Uncalibrated;
            rate = targetRate = previousRate = 1.0;
            restartAfterBlend = false;
            ratioSamples.clear();
        }
        // Readers from now on pin the other slot; wait for this one to
        // drain. It cannot refill: a reader that still takes it finds the
        // generation moved on and lets go.
        const std::uint32_t generation = pinGeneration.fetch_add(1, std::memory_order_seq_cst);
        waitUntilUnpinned(pins[generation & 1U]);
    }

    std::int32_t getState() {
        const ScopedLock<RecursiveMutex> guard(calibrationLock);
        return state;
    }

  private:
    // What the unlocked requests need, copied from the guarded members.
    struct Published {
        std::atomic<ClockSources*> sources{nullptr};
        std::atomic<std::int32_t> state{Uncalibrated};
        std::atomic<std::int64_t> epoch{0};
        std::atomic<std::int64_t> stopwatchStart{0};
        std::atomic<double> baseTime{0.0};
        std::atomic<double> systemGranularity{0.0};
        std::atomic<double> rate{1.0};
        std::atomic<double> deadline{0.0};
    };

    // Brackets a locked section. Unlocked readers only work while the
    // published state is tracking, so only then must the section make the
    // count odd, before its first clock read; a section that leaves the
    // state tracking, or brings it there, publishes the new values under an
    // odd count. Sections that go from one other state to another (sampling
    // and blending requests) touch neither the count nor the copy.
    class WriteSection {
      public:
        explicit WriteSection(ClockCalibration& clock) KESTREL_REQUIRES(clock.calibrationLock)
            : _clock(clock),
              _readersActive(clock.published.state.load(std::memory_order_relaxed) == Tracking) {
            if (_readersActive) {
                // A read-modify-write: the odd count is visible to every
                // reader before this section reads any clock.
                _clock.sequence.fetch_add(1, std::memory_order_seq_cst);
            }
        }
        // Destroyed before the lock is released; the analysis does not
        // follow a reference member to its lock.
        ~WriteSection() KESTREL_NO_THREAD_SAFETY_ANALYSIS {
            if (!_readersActive && _clock.state != Tracking) {
                return;
            }
            if (!_readersActive) {
                _clock.sequence.fetch_add(1, std::memory_order_seq_cst);
            }
            _clock.publish();
            _clock.sequence.fetch_add(1, std::memory_order_release);
        }
        WriteSection(const WriteSection&) = delete;
        WriteSection& operator=(const WriteSection&) = delete;

      private:
        ClockCalibration& _clock;
        const bool _readersActive;
    };

    // Release stores, read with acquire loads: a reader that sees any value
    // of a section also sees that section's odd count when it checks.
    void publish() KESTREL_REQUIRES(calibrationLock) {
        published.sources.store(sources, std::memory_order_release);
        published.state.store(state, std::memory_order_release);
        published.epoch.store(epoch, std::memory_order_release);
        published.stopwatchStart.store(stopwatchStart, std::memory_order_release);
        published.baseTime.store(baseTime, std::memory_order_release);
        published.systemGranularity.store(systemGranularity, std::memory_order_release);
        published.rate.store(rate, std::memory_order_release);
        published.deadline.store(deadline, std::memory_order_release);
    }

    // Keeps an unlocked request's sources alive while it reads them. The
    // system clocks live as long as the process clock and need no pin; a
    // test's sources may be destroyed as soon as reset() returns, so a
    // request counts itself in the slot of the current generation, then
    // checks that the generation and its sources are still the published
    // ones. reset() publishes the new sources, moves to the next generation
    // and waits for the previous slot to empty; seq_cst on both sides means
    // that either the waiter sees the count or the reader sees the change.
    // reset() calls run one at a time, so a pin held across two of them
    // holds up the first.
    class SourcePin {
      public:
        SourcePin(ClockCalibration& clock, ClockSources* source) : _clock(clock) {
            if (source == &clock.systemSources) {
                return;
            }
            const std::uint32_t generation = clock.pinGeneration.load(std::memory_order_seq_cst);
            _slot = &clock.pins[generation & 1U];
            _slot->fetch_add(1, std::memory_order_seq_cst);
            _valid = clock.pinGeneration.load(std::memory_order_seq_cst) == generation &&
                     clock.published.sources.load(std::memory_order_seq_cst) == source;
        }
        ~SourcePin() {
            if (_slot != nullptr) {
                _clock.unpin(*_slot);
            }
        }
        SourcePin(const SourcePin&) = delete;
        SourcePin& operator=(const SourcePin&) = delete;

        // False when the sources were replaced before the pin was taken.
        bool valid() const { return _valid; }

      private:
        ClockCalibration& _clock;
        std::atomic<std::uint32_t>* _slot = nullptr;
        bool _valid = true;
    };

    void unpin(std::atomic<std::uint32_t>& slot) {
        if (slot.fetch_sub(1, std::memory_order_seq_cst) == 1 &&
            replacersWaiting.load(std::memory_order_seq_cst) != 0) {
            const std::lock_guard<std::mutex> lock(pinLock);
            unpinned.notify_all();
        }
    }

    void waitUntilUnpinned(const std::atomic<std::uint32_t>& slot) {
        std::unique_lock<std::mutex> lock(pinLock);
        replacersWaiting.fetch_add(1, std::memory_order_seq_cst);
        unpinned.wait(lock, [&] { return slot.load(std::memory_order_seq_cst) == 0; });
        replacersWaiting.fetch_sub(1, std::memory_order_seq_cst);
    }

    // The request of now() when it would change nothing: in the tracking
    // state, before the deadline, without a jump. Reads the clocks in the
    // order of the locked request (stopwatch, then wall clock); the wall
    // clock only where the jump check needs it. False (time untouched) when
    // the request must take the lock.
    bool tryUnchangingRequest(double& time) {
        const std::uint32_t before = sequence.load(std::memory_order_acquire);
        if ((before & 1U) != 0) {
            return false;
        }
        if (published.state.load(std::memory_order_acquire) != Tracking) {
            return false;
        }
        ClockSources* const source = published.sources.load(std::memory_order_acquire);
        if (source == nullptr) {
            return false;
        }
        const SourcePin pin(*this, source);
        if (!pin.valid()) {
            return false;
        }
        const double base = published.baseTime.load(std::memory_order_acquire);
        const double factor = published.rate.load(std::memory_order_acquire);
        const double x =
            static_cast<double>(source->steadyNanoseconds() -
                                published.stopwatchStart.load(std::memory_order_acquire)) /
            kNanosecondsPerSecond;
        if (x > published.deadline.load(std::memory_order_acquire)) {
            return false;  // the sampling phase begins
        }
        if (x > kTrackingPeriod) {
            const double wallElapsed =
                static_cast<double>(source->wallTicks() -
                                    published.epoch.load(std::memory_order_acquire)) /
                    kWallTicksPerSecond +
                published.systemGranularity.load(std::memory_order_acquire) * 0.5 - base;
            if (isJump(wallElapsed, x)) {
                return false;
            }
        }
        // The copy's loads are acquire loads, so this check follows them: a
        // count still unchanged means no section overlapped the reads.
        if (sequence.load(std::memory_order_relaxed) != before) {
            return false;
        }
        time = base + x * factor;
        return true;
    }

    static bool isJump(double wallElapsed, double x) {
        const double ratio = wallElapsed / x;
        const double difference = wallElapsed - x;
        return ratio < kLowestRatio || ratio > kHighestRatio || difference < -kLargestDifference ||
               difference > kLargestDifference;
    }

    // Wall-clock seconds since time value 0.
    double wallSeconds() const KESTREL_REQUIRES(calibrationLock) {
        return static_cast<double>(sources->wallTicks() - epoch) / kWallTicksPerSecond;
    }

    double stopwatchSeconds() const KESTREL_REQUIRES(calibrationLock) {
        return static_cast<double>(sources->steadyNanoseconds() - stopwatchStart) /
               kNanosecondsPerSecond;
    }

    // Takes the base time from the wall clock just after one of its steps,
    // which also measures the step, and restarts the stopwatch.
    void calibrate() KESTREL_REQUIRES(calibrationLock) {
        epoch = sources->wallTicksAtTimeZero();
        const double t0 = wallSeconds();
        double t = t0;
        do {
            t = wallSeconds();
            baseTime = t;
            systemGranularity = t - t0;
        } while (std::fabs(t - t0) < std::numeric_limits<double>::epsilon());
        stopwatchStart = sources->steadyNanoseconds();
        rate = 1.0;
        state = Tracking;
        deadline = kTrackingPeriod;
    }

    // The stopwatch seconds x corrected by the rate, advancing the state.
    // The rate multiplies the whole of x.
    double rateStep(double x) KESTREL_REQUIRES(calibrationLock) {
        const double wallElapsed = wallSeconds() + systemGranularity * 0.5 - baseTime;

        if (x > kTrackingPeriod && (state == Tracking || state == Sampling)) {
            if (isJump(wallElapsed, x)) {
                previousRate = rate;
                targetRate = wallElapsed / x;
                blendStart = x;
                deadline = x + kPhasePeriod;
                restartAfterBlend = true;
                state = Blending;
            }
        }

        switch (state) {
            case Tracking:
                if (x > deadline) {
                    ratioSamples.clear();
                    state = Sampling;
                    deadline = x + kPhasePeriod;
                }
                return x * rate;

            case Sampling:
                ratioSamples.add(wallElapsed / x);
                if (x > deadline && ratioSamples.size() >= kMinimumSamples) {
                    previousRate = rate;
                    targetRate = ratioSamples.mean();
                    state = Blending;
                    blendStart = x;
                    deadline = x + kPhasePeriod;
                }
                return x * rate;  // the blend begins with the next request

            case Blending: {
                // Any newer ratio closer to 1.0 replaces the target.
                const double current = wallElapsed / x;
                if (std::fabs(targetRate - 1.0) > std::fabs(current - 1.0)) {
                    targetRate = current;
                }
                const double progress = std::min((x - blendStart) / kPhasePeriod, 1.0);
                rate = progress * (targetRate - previousRate) + previousRate;
                if (x > deadline) {
                    rate = targetRate;
                    if (!restartAfterBlend) {
                        state = Tracking;
                        deadline = x + kTrackingPeriod;
                    } else {
                        state = Uncalibrated;
                        restartAfterBlend = false;
                    }
                }
                return x * rate;
            }

            default:
                return x * rate;
        }
    }

    RecursiveMutex calibrationLock;
    SystemClockSources systemSources;
    ClockSources* sources KESTREL_GUARDED_BY(calibrationLock) = &systemSources;

    std::int32_t state KESTREL_GUARDED_BY(calibrationLock) = Uncalibrated;
    // Wall ticks of time value 0.
    std::int64_t epoch KESTREL_GUARDED_BY(calibrationLock) = 0;
    // Wall seconds at calibration.
    double baseTime KESTREL_GUARDED_BY(calibrationLock) = 0.0;
    // One wall-clock step, seconds.
    double systemGranularity KESTREL_GUARDED_BY(calibrationLock) = 0.0;
    // Steady nanoseconds at calibration.
    std::int64_t stopwatchStart KESTREL_GUARDED_BY(calibrationLock) = 0;
    double rate KESTREL_GUARDED_BY(calibrationLock) = 1.0;
    double targetRate KESTREL_GUARDED_BY(calibrationLock) = 1.0;
    double previousRate KESTREL_GUARDED_BY(calibrationLock) = 1.0;
    // Stopwatch seconds when the current phase ends.
    double deadline KESTREL_GUARDED_BY(calibrationLock) = 0.0;
    // Stopwatch seconds when the current blend began.
    double blendStart KESTREL_GUARDED_BY(calibrationLock) = 0.0;
    bool restartAfterBlend KESTREL_GUARDED_BY(calibrationLock) = false;
    RatioSamples ratioSamples KESTREL_GUARDED_BY(calibrationLock);

    // Odd while a locked section runs; see the class comment.
    std::atomic<std::uint32_t> sequence{0};
    Published published;

    // Unlocked requests reading a test's sources; see SourcePin.
    std::mutex replaceLock;  // one reset() at a time
    std::atomic<std::uint32_t> pinGeneration{0};
    std::atomic<std::uint32_t> pins[2] = {{0}, {0}};
    std::atomic<int> replacersWaiting{0};
    std::mutex pinLock;
    std::condition_variable unpinned;
};

ClockCalibration& clockCalibration() {
    static ClockCalibration calibration;
    return calibration;
}

}  // namespace

double processClockNow() {
    return clockCalibration().now();
}

double processClockSystemGranularity() {
    return clockCalibration().getSystemGranularity();
}

std::int32_t getProcessClockStateForTesting() {
    return clockCalibration().getState();
}

}  // namespace detail

namespace testing {

ClockSources::~ClockSources() = default;

void setClockSources(ClockSources* sources) {
    detail::clockCalibration().reset(sources);
}

}  // namespace testing
}  // namespace kestrel
