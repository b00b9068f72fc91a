#include <gtest/gtest.h>

#include <atomic>

#include "support/event_fakes.h"
#include "support/timing.h"

using namespace kestrel;
using namespace kestrel_test;

namespace {

// Runs under the locks of a post to one thread and posts to another.
class PostingMatch : public IMatchEventFcn {
  public:
    PostingMatch(Ledger& ledger, EventThread& target) : _ledger(ledger), _target(target) {}
    bool operator()(IEvent* /*queued*/) const override {
        (new TestEvent(_ledger, 2))->postEvent(_target);
        return false;
    }

  private:
    Ledger& _ledger;
    EventThread& _target;
};

}  // namespace

// A post wakes its thread only once it has left the thread's locks; a post
// made inside another post (here by a match object) must still wake its own
// thread, and the outer post its thread.
TEST(EventThreadWakeTest, PostsInsideAnotherPostWakeTheirOwnThreads) {
    Ledger l;
    EventThread a;
    EventThread b;
    ASSERT_TRUE(a.start());
    ASSERT_TRUE(b.start());
    std::atomic<bool> release{false};
    auto* blocker = new TestEvent(l, 1);
    blocker->onExecute = [&release] { return waitFor([&] { return release.load(); }); };
    blocker->postEvent(a);
    ASSERT_TRUE(waitFor([&] { return l.executed == 1; }));
    (new TestEvent(l, 3))->postEvent(a);  // queued: the match below has something to look at
    const PostingMatch postToB(l, b);
    (new TestEvent(l, 4))->postOrCoalesceEvent(a, &postToB, nullptr);
    EXPECT_TRUE(waitFor([&] { return l.executed == 2; }));  // 2, on b
    release = true;
    EXPECT_TRUE(waitFor([&] { return l.executed == 4; }));
    a.stop();
    b.stop();
    EXPECT_EQ(l.fates[kExecuted], 4);
    EXPECT_EQ(l.destroyed(), l.created);
}
