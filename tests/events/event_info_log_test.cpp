#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include "kestrel/events.h"
#include "support/counting_events.h"
#include "support/timing.h"

using kestrel::EventInfoLog;
using kestrel::IEventInfo;
using kestrel_test::CountingInfo;
using kestrel_test::EventCounters;
using kestrel_test::RecordingEvent;

namespace {

// A loggable record whose event is already gone: the log holds its last reference.
IEventInfo* orphanRecord(EventCounters& c, int value) {
    auto* info = new CountingInfo(c, true, value);
    delete new RecordingEvent(c, 0, nullptr, info);
    return info;
}

std::vector<int> loggedValues(const EventInfoLog& log) {
    std::vector<int> values;
    std::unique_ptr<kestrel::TLockingEnumerator<std::list<IEventInfo*>>> e(
        log.getLockingEnumerator());
    for (; !e->isAtEnd(); e->next()) {
        values.push_back(static_cast<CountingInfo*>(e->getCurrent())->value);
    }
    EXPECT_EQ(e->getCount(), values.size());
    EXPECT_EQ(e->getCurrent(), nullptr);
    e->reset();
    EXPECT_TRUE(values.empty() || e->getCurrent() != nullptr);
    return values;
}

}  // namespace

TEST(EventInfoLogTest, KeepsNewestLoggableRecordsUpToTheLimit) {
    EventCounters c;
    {
        EventInfoLog log(3);
        for (int v = 1; v <= 4; ++v) {
            log.append(orphanRecord(c, v));
        }
        EXPECT_EQ(loggedValues(log), (std::vector<int>{2, 3, 4}));
        EXPECT_EQ(c.infosDestroyed, 1);
        EXPECT_TRUE(log.isLogFull());

        auto* ignored = new CountingInfo(c, false);
        log.append(ignored);
        delete new RecordingEvent(c, 0, nullptr, ignored);
        EXPECT_EQ(c.infosDestroyed, 2);
        EXPECT_EQ(log.getNumberLogged(), 3);

        log.setMaxToLog(5);
        log.append(orphanRecord(c, 5));
        log.append(orphanRecord(c, 6));
        EXPECT_EQ(c.infosDestroyed, 2);
        log.setMaxToLog(2);
        EXPECT_EQ(loggedValues(log), (std::vector<int>{5, 6}));
        EXPECT_EQ(c.infosDestroyed, 5);

        log.setMaxToLog(EventInfoLog::NO_LIMIT);
        EXPECT_EQ(log.getMaxToLog(), 2147483647);
        EXPECT_FALSE(log.isLogFull());
        log.append(orphanRecord(c, 7));
    }
    EXPECT_EQ(c.infosDestroyed, 8);
}

TEST(EventInfoLogTest, ZeroOrNegativeLimitKeepsNothingAndClearKeepsTheLimit) {
    EventCounters c;
    EventInfoLog log(-5);
    EXPECT_EQ(log.getMaxToLog(), 0);
    EXPECT_TRUE(log.isLogFull());
    log.append(orphanRecord(c, 1));
    EXPECT_EQ(c.infosDestroyed, 1);
    EXPECT_EQ(log.getNumberLogged(), 0);

    log.setMaxToLog(4);
    log.clear();
    log.append(orphanRecord(c, 2));
    log.append(orphanRecord(c, 3));
    log.clear();
    EXPECT_EQ(c.infosDestroyed, 3);
    EXPECT_EQ(log.getNumberLogged(), 0);
    EXPECT_EQ(log.getMaxToLog(), 4);
    log.setMaxToLog(-2);
    EXPECT_EQ(log.getMaxToLog(), 0);
}

TEST(EventInfoLogTest, EnumeratorBlocksOtherThreadsUntilDestroyed) {
    EventCounters c;
    EventInfoLog log;
    log.append(orphanRecord(c, 1));
    auto* enumerator = log.getLockingEnumerator();
    std::atomic<bool> appending{false};
    std::atomic<bool> appended{false};
    std::thread other([&] {
        appending = true;
        log.append(orphanRecord(c, 2));
        appended = true;
    });
    ASSERT_TRUE(kestrel_test::waitFor([&] { return appending.load(); }));
    // The append cannot complete while the enumerator lives, however long we
    // give it; the holder itself may still use the log.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(appended);
    EXPECT_EQ(log.getNumberLogged(), 1);
    EXPECT_EQ(enumerator->getCount(), 1U);
    delete enumerator;
    EXPECT_TRUE(kestrel_test::waitFor([&] { return appended.load(); }));
    other.join();
    EXPECT_EQ(log.getNumberLogged(), 2);
}
