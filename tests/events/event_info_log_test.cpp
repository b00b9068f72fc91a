#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <thread>

#include "support/event_fakes.h"
#include "support/timing.h"

using namespace kestrel;
using namespace kestrel_test;
using Values = std::vector<int>;

namespace {

// A loggable record whose event is gone: a log would hold its last reference.
IEventInfo* orphan(Ledger& l, int value) {
    auto* info = new Info(l, true, value);
    delete new TestEvent(l, 0, info);
    return info;
}

Values logged(const EventInfoLog& log) {
    std::unique_ptr<TLockingEnumerator<std::list<IEventInfo*>>> e(log.getLockingEnumerator());
    Values values;
    for (; !e->isAtEnd(); e->next()) {
        values.push_back(static_cast<Info*>(e->getCurrent())->value);
    }
    EXPECT_EQ(e->getCurrent(), nullptr);
    e->reset();
    EXPECT_EQ(e->getCount(), values.size());
    EXPECT_EQ(static_cast<Info*>(e->getCurrent())->value, values.front());
    return values;
}

}  // namespace

TEST(EventInfoLogTest, KeepsTheNewestLoggableRecordsUpToItsLimit) {
    Ledger l;
    {
        EventInfoLog log(3);
        for (int v = 1; v <= 4; ++v) {
            log.append(orphan(l, v));
        }
        EXPECT_EQ(logged(log), (Values{2, 3, 4}));
        EXPECT_EQ(l.infosDestroyed, 1);
        EXPECT_TRUE(log.isLogFull());
        auto* plain = new Info(l, false);
        log.append(plain);  // ignored
        delete new TestEvent(l, 0, plain);
        log.setMaxToLog(5);
        log.append(orphan(l, 5));
        log.append(orphan(l, 6));
        EXPECT_EQ(l.infosDestroyed, 2);
        log.setMaxToLog(2);
        EXPECT_EQ(logged(log), (Values{5, 6}));
        EXPECT_EQ(l.infosDestroyed, 5);
        log.setMaxToLog(EventInfoLog::NO_LIMIT);
        EXPECT_EQ(log.getMaxToLog(), 2147483647);
        EXPECT_FALSE(log.isLogFull());
        log.append(orphan(l, 7));
    }
    EXPECT_EQ(l.infosDestroyed, 8);

    EventInfoLog off(-5);  // below NO_LIMIT: logging off
    EXPECT_EQ(off.getMaxToLog(), 0);
    EXPECT_TRUE(off.isLogFull());
    off.append(orphan(l, 8));
    EXPECT_EQ(l.infosDestroyed, 9);
    off.setMaxToLog(4);
    off.append(orphan(l, 9));
    off.clear();
    EXPECT_EQ(l.infosDestroyed, 10);
    EXPECT_EQ(off.getNumberLogged(), 0);
    EXPECT_EQ(off.getMaxToLog(), 4);
}

TEST(EventInfoLogTest, EnumeratorBlocksOtherThreadsUntilDestroyed) {
    Ledger l;
    EventInfoLog log;
    log.append(orphan(l, 1));
    auto* enumerator = log.getLockingEnumerator();
    std::atomic<bool> appending{false}, appended{false};
    std::thread other([&] {
        appending = true;
        log.append(orphan(l, 2));
        appended = true;
    });
    ASSERT_TRUE(waitFor([&] { return appending.load(); }));
    // However long the other thread gets, its append cannot complete; this
    // thread, holding the lock, still can use the log.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(appended);
    EXPECT_EQ(log.getNumberLogged(), 1);
    delete enumerator;
    other.join();
    EXPECT_EQ(log.getNumberLogged(), 2);
}
