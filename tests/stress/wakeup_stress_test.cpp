// A poster that posts the next event the moment the previous one has run
// hits the end of the pass that ran it, again and again: a post made there
// must still get its event processed (a pass that leaves its processing state
// only after letting go of the queue loses the wake-up now and then).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "kestrel/events.h"
#include "support/timing.h"

using namespace kestrel;
using namespace kestrel_test;
using Clock = std::chrono::steady_clock;

namespace {

struct Counted : IEvent {
    explicit Counted(std::atomic<int>& c) : count(c) {}
    bool execute() override {
        ++count;
        return true;
    }
    std::atomic<int>& count;
};

// Posts one event at a time for about half a second, each as soon as the one
// before has run; false if one was not run within kBlockedAfter.
template <typename Post>
bool pingPong(std::atomic<int>& executed, Post post) {
    const auto end = Clock::now() + std::chrono::milliseconds(500);
    for (int i = 1; Clock::now() < end; ++i) {
        post();
        const auto limit = Clock::now() + std::chrono::duration<double>(10 * kSchedulingAllowance);
        while (executed.load() < i) {
            if (Clock::now() > limit)
                return false;
            std::this_thread::yield();
        }
    }
    return true;
}

// Wakes a processing thread of its own, as an owner's message loop would.
struct Wake : EventQueue::IEventQueueHandler {
    struct Signal {
        std::mutex mutex;
        std::condition_variable condition;
        bool set = false, quit = false;
    };
    explicit Wake(Signal& s) : signal(s) {}
    void notifyEventsToProcess(std::size_t) const override {
        {
            const std::lock_guard<std::mutex> lock(signal.mutex);
            signal.set = true;
        }
        signal.condition.notify_one();
    }
    Signal& signal;
};

}  // namespace

TEST(WakeUpStressTest, APostAtTheEndOfAPassIsNeverLeftUnprocessed) {
    std::atomic<int> executed{0};
    {
        EventThread thread(EventThread::PROCESS_PENDING_EVENTS);
        ASSERT_TRUE(thread.start());
        EXPECT_TRUE(
            pingPong(executed, [&] { thread.postEvent(new Counted(executed), nullptr, nullptr); }));
    }
    executed = 0;
    Wake::Signal signal;
    EventQueue queue(new Wake(signal), {});
    std::thread owner([&] {
        std::unique_lock<std::mutex> lock(signal.mutex);
        while (!signal.quit) {
            if (signal.set) {
                signal.set = false;
                lock.unlock();
                queue.processEvents();
                lock.lock();
            } else {
                signal.condition.wait(lock);
            }
        }
    });
    EXPECT_TRUE(
        pingPong(executed, [&] { queue.postEvent(new Counted(executed), nullptr, nullptr); }));
    {
        const std::lock_guard<std::mutex> lock(signal.mutex);
        signal.quit = true;
    }
    signal.condition.notify_one();
    owner.join();
}
