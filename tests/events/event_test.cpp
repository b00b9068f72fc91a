// Servicing, posting and flushing through IEvent, with the manager's thread
// and others, and with callers' code that throws.
#include <gtest/gtest.h>

#include <stdexcept>

#include "events/event_case.h"

using namespace kestrel;
using namespace kestrel_test;

TEST_F(EventCaseTest, ServicingRunsAtOnceOnlyOnTheThreadThatCreatedTheManager) {
    Handler spare(l);
    EXPECT_EQ(EventManager::createInstance(&spare), manager);  // one instance
    TestEvent* e[] = {event(1), event(2), event(3, true)};
    e[0]->onExecute = [] { return false; };
    e[1]->executable = false;
    EXPECT_FALSE(e[0]->serviceEvent(true));  // ran at once: its own result
    EXPECT_TRUE(e[1]->serviceEvent(true));   // dropped
    EXPECT_THROW(e[2]->serviceEvent(true), std::runtime_error);
    finish({1, 3, 98, 99});
}

TEST_F(EventCaseTest, ExecuteThrowsInAServicingFlushAndMergeThrowsWhilePosting) {
    struct ThrowingMerge : IMergeEventInfoFcn {
        void operator()(IEventInfo*, IEventInfo*) const override { throw 1; }
    };
    for (int key : {1, 2, 1})
        event(key, key == 1)->serviceEvent(false);
    IEvent::flushEvents(KeyMatch(1, kFlushed), true);
    const KeyMatch match(2, kFlushed);  // marks 2 flushed, which its execution outranks
    const ThrowingMerge merge;
    EXPECT_THROW(event(4)->serviceOrCoalesceEvent(false, &match, &merge), int);
    finish({1, 1, 98, 2, 99});
}
