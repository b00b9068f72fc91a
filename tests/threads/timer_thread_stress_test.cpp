// Timers started, restarted and stopped over and over by several owners at
// once, while other threads request the current time.
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

class CountingTimer : public TimerThread {
  public:
    CountingTimer() : TimerThread(FIXED_RATE, 0.001) {}
    ~CountingTimer() override { stop(); }
    std::atomic<int> executions{0};

  private:
    void executing() override { ++executions; }
};

}  // namespace

TEST(ThreadStressTest, TimersCountEveryExecutionAcrossRestartsAndTheTimeNeverRunsBackwards) {
    const auto end = Clock::now() + std::chrono::milliseconds(1000);
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([i, end] {  // a timer's owner
            CountingTimer timer;
            int cycles = 0, counted = 0;
            for (; Clock::now() < end; ++cycles) {
                EXPECT_TRUE(timer.start());
                if (cycles % 3 == i) {  // a restart: the count goes on
                    timer.setPeriod(cycles % 2 == 0 ? 0.002 : 0.001);
                }
                std::this_thread::sleep_for(std::chrono::microseconds(500 * (cycles % 5)));
                EXPECT_TRUE(timer.stop());
                counted += timer.getExecutions();  // since the last start
            }
            EXPECT_EQ(timer.executions, counted);
            EXPECT_GT(counted, 0);
        });
        threads.emplace_back([i, end] {  // a reader of the current time
            double last = Timestamp().getTime();
            while (Clock::now() < end) {
                const double t = i % 2 ? Timestamp().getTime() : fcns::time::getCurrentTimestamp();
                ASSERT_GE(t, last);
                last = t;
            }
            const auto wall = std::chrono::system_clock::now().time_since_epoch();
            EXPECT_NEAR(last, std::chrono::duration<double>(wall).count(), 1.0);
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
}
