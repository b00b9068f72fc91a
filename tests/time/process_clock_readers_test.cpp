// Several threads taking the time while the process clock moves through its
// phases: the unlocked readings of the tracking state and the locked
// readings of the other states must fit together.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#include "kestrel/time.h"
#include "time/process_clock.h"

namespace {

using kestrel::detail::getProcessClockStateForTesting;

// Thread-safe stand-in clocks: the stopwatch moves only when the test says
// so; the wall clock moves with it and also by one tick per reading, so that
// the calibration sees it step.
class SharedFakeClock : public kestrel::detail::ClockSources {
  public:
    static constexpr std::int64_t kTicksAtTimeZero = 116444736000000000;

    SharedFakeClock() { kestrel::detail::setProcessClockSourcesForTesting(this); }
    ~SharedFakeClock() override { kestrel::detail::setProcessClockSourcesForTesting(nullptr); }
    SharedFakeClock(const SharedFakeClock&) = delete;
    SharedFakeClock& operator=(const SharedFakeClock&) = delete;

    void advance(double seconds) {
        _wall += static_cast<std::int64_t>(seconds * 1e7);
        _steady += static_cast<std::int64_t>(seconds * 1e9);
    }
    double wallSeconds() const {
        return static_cast<double>(_wall.load() - kTicksAtTimeZero) / 1e7;
    }

    std::int64_t wallTicks() override { return _wall.fetch_add(1); }
    std::int64_t wallTicksAtTimeZero() override { return kTicksAtTimeZero; }
    std::int64_t steadyNanoseconds() override { return _steady.load(); }

  private:
    std::atomic<std::int64_t> _wall{kTicksAtTimeZero + 17000000000000000};
    std::atomic<std::int64_t> _steady{5000000000000};
};

TEST(ProcessClockReadersTest, ConcurrentReadingsStayOrderedThroughEveryPhase) {
    SharedFakeClock clock;
    const double base = kestrel::Timestamp().getTime();

    constexpr int kReaders = 3;
    constexpr int kSeconds = 480;
    constexpr double kTolerance = 1e-6;  // seconds; blending may refine a rate
    std::atomic<int> step{0};            // 0 to kSeconds; -1 ends the readers
    std::atomic<int> disorders{0};
    std::vector<std::atomic<int>> done(kReaders);
    std::vector<std::thread> readers;
    for (int r = 0; r < kReaders; ++r) {
        readers.emplace_back([&, r] {
            double previous = base;
            for (int seen = 0;;) {
                while (step == seen) {
                    std::this_thread::yield();
                }
                seen = step;
                if (seen < 0) {
                    return;
                }
                for (int i = 0; i < 2; ++i) {
                    const double now = kestrel::Timestamp().getTime();
                    if (now < previous - kTolerance) {
                        ++disorders;
                    }
                    previous = now;
                }
                done[static_cast<std::size_t>(r)] = seen;
            }
        });
    }
    // Through tracking (to 300 s), sampling (to 361 s), blending (to 422 s)
    // and tracking again, all readers reading at each second.
    std::vector<int> phasesSeen(4, 0);
    for (int second = 1; second <= kSeconds; ++second) {
        clock.advance(1.0);
        step = second;
        for (std::atomic<int>& d : done) {
            while (d != second) {
                std::this_thread::yield();
            }
        }
        ++phasesSeen[static_cast<std::size_t>(getProcessClockStateForTesting())];
    }
    step = -1;
    for (std::thread& t : readers) {
        t.join();
    }
    EXPECT_EQ(disorders, 0);
    EXPECT_GT(phasesSeen[1], 0);
    EXPECT_GT(phasesSeen[2], 0);
    EXPECT_GT(phasesSeen[3], 0);
    EXPECT_EQ(getProcessClockStateForTesting(), 1);
    EXPECT_NEAR(kestrel::Timestamp().getTime(), clock.wallSeconds(), 0.01);
    EXPECT_NEAR(kestrel::Timestamp().getTime(), base + kSeconds, 0.01);
}

}  // namespace
