// Hooks and events that end their own thread (pthread_exit) and threads that
// are cancelled: the end passes through the library, which must neither
// abort the process nor hang, and the object stays stoppable, restartable
// and destructible.
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <functional>

#include "kestrel/events.h"
#include "support/event_fakes.h"
#include "support/other_thread.h"

using namespace kestrel;
using namespace kestrel_test;

namespace {

enum Hook { kStarting, kRunning, kStopping, kNone };

// Ends its thread in one hook on the first start, and otherwise waits in
// running() for a stop, where it can be cancelled.
struct Ender : WorkThread {
    Hook hook = kRunning;
    bool cancel = false;  // waits to be cancelled instead of ending itself
    std::atomic<int> starts{0}, passes{0}, stops{0};
    std::atomic<pthread_t> self{};
    Event event;
    ~Ender() override { stop(); }
    void end(Hook at) {
        if (hook == at && starts == 1)
            pthread_exit(nullptr);
    }
    void starting() override {
        ++starts;
        end(kStarting);
    }
    void running() override {
        self = pthread_self();
        ++passes;
        end(kRunning);
        wait(event);  // a cancellation point; a stop ends it
    }
    void stopping() override {
        ++stops;
        end(kStopping);
    }
};

struct EndingTimer : TimerThread {
    EndingTimer() : TimerThread(FIXED_RATE, 0.001) {}
    ~EndingTimer() override { stop(); }
    std::atomic<int> runs{0};
    void executing() override {
        if (++runs == 1)
            pthread_exit(nullptr);
    }
};

}  // namespace

TEST(ThreadEndTest, AHookOrEventThatEndsItsThreadOrACancelLeavesTheObjectUsable) {
    struct Plain : Thread {
        std::atomic<int> runs{0};
        bool run() override {
            ++runs;
            pthread_exit(nullptr);
        }
    } plain;
    ASSERT_TRUE(plain.start());
    plain.join();
    ASSERT_TRUE(plain.start());
    plain.join();
    EXPECT_EQ(plain.runs, 2);

    for (const Hook hook : {kStarting, kRunning, kStopping}) {
        for (const bool cancel : {false, true}) {
            if (cancel && hook != kRunning)
                continue;
            SCOPED_TRACE(hook * 2 + cancel);
            Ender ender;
            ender.hook = cancel ? kNone : hook;
            ASSERT_TRUE(ender.start());  // returns although starting() ended the thread
            if (cancel) {
                ASSERT_TRUE(waitFor([&] { return ender.passes > 0; }));
                pthread_cancel(ender.self);
            }
            if (hook != kStarting) {
                ASSERT_TRUE(waitFor([&] { return ender.passes > 0; }));
            }
            runOnAnotherThread([&] {
                EXPECT_TRUE(ender.stop() && !ender.isActive());
                ASSERT_TRUE(ender.start());  // ends nothing the second time
                EXPECT_TRUE(waitFor([&] { return ender.passes > (hook == kStarting ? 0 : 1); }));
                EXPECT_TRUE(ender.stop());
            });
            // The hooks after the end do not run; those of the next start do.
            EXPECT_EQ(ender.stops, hook == kStopping && !cancel ? 2 : 1);
        }
    }

    EndingTimer timer;
    ASSERT_TRUE(timer.start());
    ASSERT_TRUE(waitFor([&] { return timer.runs == 1; }));
    runOnAnotherThread([&] {
        EXPECT_TRUE(timer.stop());
        ASSERT_TRUE(timer.start());
        EXPECT_TRUE(waitFor([&] { return timer.runs > 2; }));
    });

    // An event ends the event thread in the middle of a pass: the event is
    // destroyed, those behind it wait for the next start, or the destructor.
    Ledger l;
    {
        EventThread thread;
        ASSERT_TRUE(thread.start());
        auto* ending = new TestEvent(l, 1);
        ending->onExecute = []() -> bool { pthread_exit(nullptr); };
        ending->postEvent(thread);
        (new TestEvent(l, 2))->postEvent(thread);
        ASSERT_TRUE(waitFor([&] { return l.destroyed() == 1; }));
        runOnAnotherThread([&] {
            EXPECT_TRUE(thread.stop());
            ASSERT_TRUE(thread.start());
            (new TestEvent(l, 3))->postEvent(thread);
            EXPECT_TRUE(waitFor([&] { return l.executed == 2; }));
            (new TestEvent(l, 4))->postEvent(thread);
            auto* last = new TestEvent(l, 5);
            last->onExecute = []() -> bool { pthread_exit(nullptr); };
            last->postEvent(thread);
        });
        EXPECT_TRUE(waitFor([&] { return l.executed == 4; }));
    }
    EXPECT_EQ(l.trace(), (std::vector<int>{1, 3, 4, 5}));
    EXPECT_TRUE(l.destroyed() == l.created && l.fates[kWrong] == 0);
}

TEST(ThreadEndTest, AThreadCancelledInAnEventWaitLeavesTheEventUsable) {
    Event event;
    struct Waiter : Thread {
        explicit Waiter(Event& e) : event(e) {}
        Event& event;
        std::atomic<pthread_t> self{};
        std::atomic<bool> waiting{false}, returned{false}, ended{false};
        bool run() override {
            struct End {
                std::atomic<bool>& ended;
                ~End() { ended = true; }
            } end{ended};
            self = pthread_self();
            waiting = true;
            event.wait();
            returned = true;  // no cancellation point between
            return true;
        }
    } waiter(event);
    ASSERT_TRUE(waiter.start());
    ASSERT_TRUE(waitFor([&] { return waiter.waiting.load(); }));
    // Acts in the wait, whether it already sleeps or not.
    pthread_cancel(waiter.self);
    if (!waitFor([&] { return waiter.ended.load(); })) {
        event.signal();  // a wait that ignores the cancel: release it
    }
    waiter.join();
    EXPECT_FALSE(waiter.returned);
    // Nothing was left held, and the event still works.
    runOnAnotherThread([&] {
        event.signal();
        event.wait();
    });
}
