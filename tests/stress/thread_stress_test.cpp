// Timers started, restarted and stopped over and over by several owners at
// once, and the current time requested from many threads.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "kestrel/threads.h"
#include "kestrel/time.h"

using namespace kestrel;
using Clock = std::chrono::steady_clock;

namespace {

const auto kRunTime = std::chrono::milliseconds(1000);

class CountingTimer : public TimerThread {
  public:
    CountingTimer() : TimerThread(FIXED_RATE, 0.001) {}
    ~CountingTimer() override { stop(); }
    std::atomic<int> executions{0};

  private:
    void executing() override { ++executions; }
};

// Runs body(index) on count threads at once.
template <typename Body>
void onThreads(int count, Body body) {
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
        threads.emplace_back(body, i);
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

}  // namespace

TEST(ThreadStressTest, TimersCountEveryExecutionAcrossStartsStopsAndRestarts) {
    onThreads(3, [](int owner) {
        CountingTimer timer;
        int cycles = 0, counted = 0;
        for (const auto end = Clock::now() + kRunTime; Clock::now() < end; ++cycles) {
            EXPECT_TRUE(timer.start());
            if (cycles % 3 == owner) {
                timer.setPeriod(cycles % 2 == 0 ? 0.002 : 0.001);  // a restart: the count goes on
            }
            std::this_thread::sleep_for(std::chrono::microseconds(500 * (cycles % 5)));
            EXPECT_TRUE(timer.stop());
            counted += timer.getExecutions();  // since the last start
        }
        EXPECT_EQ(timer.executions, counted);
        EXPECT_GT(counted, 0);
    });
}

TEST(ThreadStressTest, ConcurrentCurrentTimeNeverRunsBackwardsOnAnyThread) {
    onThreads(4, [](int reader) {
        double last = Timestamp().getTime();
        for (const auto end = Clock::now() + kRunTime / 2; Clock::now() < end;) {
            const double t =
                reader % 2 == 0 ? Timestamp().getTime() : fcns::time::getCurrentTimestamp();
            ASSERT_GE(t, last);
            last = t;
        }
        const auto wall = std::chrono::system_clock::now().time_since_epoch();
        EXPECT_NEAR(last, std::chrono::duration<double>(wall).count(), 1.0);
    });
}
