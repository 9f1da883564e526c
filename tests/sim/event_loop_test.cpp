// The event loop's timers: due order, ties in creation order, cancellation, and timers that
// handlers add for the moment being run.
#include "sim/event_loop.hpp"

#include <gtest/gtest.h>

#include <vector>

TEST(EventLoop, RunsDueTimersInOrderSkipsCancelledOnesAndTakesTimersAddedForNow) {
  EventLoop loop;
  std::vector<int> ran;
  loopAddTimer(&loop, 30, [&](int64_t) { ran.push_back(3); });
  loopAddTimer(&loop, 10, [&](int64_t) { ran.push_back(1); });
  loopAddTimer(&loop, 10, [&](int64_t) { ran.push_back(2); });  // same moment: after the first
  uint64_t cancelled = loopAddTimer(&loop, 20, [&](int64_t) { ran.push_back(99); });
  loopCancelTimer(&loop, cancelled);
  loopCancelTimer(&loop, cancelled);  // twice, and an unknown id, do nothing
  loopCancelTimer(&loop, 0);
  EXPECT_EQ(loopNextDue(&loop), 10);
  loopRunDue(&loop, 25);
  EXPECT_EQ(ran, (std::vector<int>{1, 2}));
  // A handler's timer for the moment being run runs in the same pass; one for later waits.
  loopAddTimer(&loop, 28, [&](int64_t now) {
    loopAddTimer(&loop, now, [&](int64_t t) { ran.push_back(static_cast<int>(t)); });
    loopAddTimer(&loop, now + 1, [&](int64_t) { ran.push_back(0); });
  });
  loopRunDue(&loop, 30);
  EXPECT_EQ(ran, (std::vector<int>{1, 2, 3, 30}));
  EXPECT_EQ(loopNextDue(&loop), 31);
}
