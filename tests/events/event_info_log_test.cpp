#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <new>
#include <thread>

#include "support/event_fakes.h"
#include "support/timing.h"

using namespace kestrel;
using namespace kestrel_test;

namespace {

// Allocations fail on this thread while it is set (where the library's
// allocations come here: not into a Windows DLL).
thread_local bool failAllocations = false;

}  // namespace

// This program's new and delete are malloc() and free() throughout; GCC's
// check cannot see that once they are inlined.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

void* operator new(std::size_t size) {
    if (!failAllocations) {
        if (void* p = std::malloc(size == 0 ? 1 : size))
            return p;
    }
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}

TEST(EventInfoLogTest, KeepsTheNewestLoggableRecordsUpToItsLimitAndLocksForAnEnumerator) {
    Ledger l;
    EventInfoLog log(3);
    l.log = &log;  // an event leaves its record there when destroyed
    const auto logged = [&l](int value) { delete new TestEvent(l, 0, new Info(true, value)); };
    for (int v = 1; v <= 4; ++v)
        logged(v);  // 1 is released when 4 arrives
    EXPECT_EQ(Info::alive, 3);
    log.setMaxToLog(2);  // releases 2
    EXPECT_TRUE(log.isLogFull() && Info::alive == 2);
    log.setMaxToLog(EventInfoLog::NO_LIMIT);
    auto* e = log.getLockingEnumerator();
    std::thread other([&] { logged(5); });
    // However long the other thread tries, it cannot append; this thread still may use the log.
    EXPECT_FALSE(waitFor([&] { return log.getNumberLogged() == 3; }, 0.05));
    Ints values;
    for (; !e->isAtEnd(); e->next())
        values.push_back(static_cast<Info*>(e->getCurrent())->value);
    EXPECT_EQ(values, (Ints{3, 4}));
    delete e;
    other.join();
    log.setMaxToLog(0);  // releases every record
    logged(6);           // released at once
    EXPECT_TRUE(log.getNumberLogged() == 0 && Info::alive == 0);
}

// The holder of an enumerator may still change the log: what it drops stays
// alive and in the enumerator's view until the enumerator goes. Running out
// of memory loses neither the new record nor, but for a full log, the oldest.
TEST(EventInfoLogReentryTest, ChangesUnderAnEnumeratorWaitForItAndMemoryRunningOutLosesNothing) {
    Ledger l;
    const auto values = [](TLockingEnumerator<std::list<IEventInfo*>>& e) {
        Ints v;
        for (e.reset(); !e.isAtEnd(); e.next())
            v.push_back(static_cast<Info*>(e.getCurrent())->value);
        return v;
    };
    struct NoMemory {
        NoMemory() { failAllocations = true; }
        ~NoMemory() { failAllocations = false; }
    };
    // The record of an event that is then destroyed: the log holds its last reference.
    const auto append = [&](EventInfoLog& log, int value, bool withoutMemory = false) {
        std::unique_ptr<TestEvent> event(new TestEvent(l, 0, new Info(true, value)));
        if (withoutMemory) {
            const NoMemory none;
            log.append(event->getEventInfo());
        } else {
            log.append(event->getEventInfo());
        }
    };
    {
        EventInfoLog log(2);
        append(log, 1);
        append(log, 2);
        auto* outer = log.getLockingEnumerator();
        auto* inner = log.getLockingEnumerator();
        outer->next();
        append(log, 3);  // full: 1 is dropped, yet stays for the enumerators
        EXPECT_TRUE(log.getNumberLogged() == 2 && log.isLogFull() && Info::alive == 3);
        delete inner;
        EXPECT_EQ(Info::alive, 3);
        EXPECT_EQ(static_cast<Info*>(outer->getCurrent())->value, 2);
        log.setMaxToLog(1);  // drops 2
        log.clear();         // drops 3
        append(log, 4);
        EXPECT_EQ(values(*outer), (Ints{1, 2, 3, 4}));
        EXPECT_TRUE(log.getNumberLogged() == 1 && Info::alive == 4);
        delete outer;  // releases 1, 2 and 3
        EXPECT_EQ(Info::alive, 1);
        std::unique_ptr<TLockingEnumerator<std::list<IEventInfo*>>> e(log.getLockingEnumerator());
        EXPECT_EQ(values(*e), (Ints{4}));
    }
    EXPECT_EQ(Info::alive, 0);
#if !defined(_WIN32)  // allocations inside a DLL do not come to this program's operator new
    {
        EventInfoLog log(3);
        append(log, 1, true);  // nowhere to keep it: released
        EXPECT_TRUE(log.getNumberLogged() == 0 && Info::alive == 0);
        append(log, 2);
        append(log, 3);
        append(log, 4, true);  // not full, yet it takes the place of the oldest
        append(log, 5);
        append(log, 6, true);  // full: takes the place of the oldest
        std::unique_ptr<TLockingEnumerator<std::list<IEventInfo*>>> e(log.getLockingEnumerator());
        EXPECT_EQ(values(*e), (Ints{4, 5, 6}));
        EXPECT_EQ(Info::alive, 3);
    }
    EXPECT_EQ(Info::alive, 0);
#endif
}
