#include "platform/sim/sim_main_loop.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tarry::platform::sim {
namespace {

TEST(SimMainLoop, FiresTimersInDueOrderWithTheClockAtTheirDueTime) {
  SimMainLoop loop(100.0, 5000.0);
  std::vector<std::string> fired;
  auto late = loop.after(2.0, [&] { fired.push_back("late@" + std::to_string(loop.uptime())); });
  auto early = loop.after(0.5, [&] { fired.push_back("early@" + std::to_string(loop.uptime())); });
  auto tick = loop.every(1.0, [&] { fired.push_back("tick@" + std::to_string(loop.uptime())); });
  loop.advance(2.5);
  ASSERT_EQ(fired.size(), 4U);
  EXPECT_EQ(fired[0], "early@100.500000");
  EXPECT_EQ(fired[1], "tick@101.000000");
  // A repeating timer and a one-shot due at the same instant run in the order they were scheduled.
  EXPECT_EQ(fired[2], "late@102.000000");
  EXPECT_EQ(fired[3], "tick@102.000000");
  EXPECT_DOUBLE_EQ(loop.uptime(), 102.5);
  EXPECT_DOUBLE_EQ(loop.now(), 5002.5);
}

TEST(SimMainLoop, DroppedHandlesAndSelfCancellationStopWork) {
  SimMainLoop loop;
  int count = 0;
  {
    auto dropped = loop.after(1.0, [&] { ++count; });
  }
  Scheduled repeating;
  repeating = loop.every(0.1, [&] {
    if (++count == 3) repeating.cancel();
  });
  loop.advance(5);
  EXPECT_EQ(count, 3);
  EXPECT_FALSE(repeating.active());
  EXPECT_EQ(loop.pendingCount(), 0U);
}

TEST(SimMainLoop, HeldBackgroundWorkRunsOnlyWhenReleased) {
  SimMainLoop loop;
  loop.setHoldBackground(true);
  int ranInBackground = 0;
  int ranOnMain = 0;
  loop.background([&] {
    ++ranInBackground;
    loop.dispatchMain([&] { ++ranOnMain; });
  });
  loop.advance(1);
  EXPECT_EQ(ranInBackground, 0);
  EXPECT_EQ(loop.releaseBackground(), 1U);
  EXPECT_EQ(ranOnMain, 0);  // the result waits for the main loop to turn
  loop.runDue();
  EXPECT_EQ(ranOnMain, 1);
}

}  // namespace
}  // namespace tarry::platform::sim
