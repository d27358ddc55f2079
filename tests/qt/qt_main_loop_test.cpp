#include "platform/qt/qt_main_loop.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

namespace tarry::platform::qt {
namespace {

// Every test ends its loop itself; this only keeps a broken test from hanging the run.
constexpr double kGiveUpSeconds = 5;

TEST(QtMainLoopTest, TimersRunInOrderOfTheirDueTimeAndCancelledWorkNever) {
  QtMainLoop loop;
  std::vector<std::string> order;
  const Scheduled c = loop.after(0.030, [&] { order.push_back("c"); });
  const Scheduled a = loop.after(0.005, [&] { order.push_back("a"); });
  const Scheduled b = loop.after(0.015, [&] { order.push_back("b"); });
  Scheduled dropped = loop.after(0.010, [&] { order.push_back("dropped"); });
  dropped.cancel();
  { const Scheduled scoped = loop.after(0.001, [&] { order.push_back("scoped"); }); }
  std::vector<std::string> posts;
  const Scheduled first = loop.post([&] { posts.push_back("first"); });
  Scheduled unposted = loop.post([&] { posts.push_back("unposted"); });
  const Scheduled second = loop.post([&] { posts.push_back("second"); });
  unposted.cancel();
  const Scheduled end = loop.after(0.040, [&] { loop.quit(3); });
  const Scheduled giveUp = loop.after(kGiveUpSeconds, [&] { loop.quit(99); });

  EXPECT_EQ(loop.run(), 3);
  EXPECT_EQ(order, (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_EQ(posts, (std::vector<std::string>{"first", "second"}));
  EXPECT_FALSE(a.active());  // a one-shot that ran is spent
}

TEST(QtMainLoopTest, ARepeatingTimerStopsWhenItsHandleIsCancelled) {
  QtMainLoop loop;
  int ticks = 0;
  Scheduled ticker;
  ticker = loop.every(0.002, [&] {
    if (++ticks == 3) ticker.cancel();
  });
  const Scheduled end = loop.every(0.002, [&] {
    if (ticks >= 3) loop.quit(0);
  });
  const Scheduled giveUp = loop.after(kGiveUpSeconds, [&] { loop.quit(99); });
  ASSERT_EQ(loop.run(), 0);

  // A few more periods: the cancelled timer stays quiet.
  const Scheduled more = loop.after(0.020, [&] { loop.quit(0); });
  loop.run();
  EXPECT_EQ(ticks, 3);
}

TEST(QtMainLoopTest, WorkFromOtherThreadsComesBackToTheMainThread) {
  QtMainLoop loop;
  const std::thread::id mainThread = std::this_thread::get_id();
  std::thread::id backgroundThread;
  std::thread::id dispatchedThread;
  loop.background([&] {
    backgroundThread = std::this_thread::get_id();
    std::thread helper([&] {
      loop.dispatchMain([&] {
        dispatchedThread = std::this_thread::get_id();
        loop.quit(7);
      });
    });
    helper.join();
  });
  const Scheduled giveUp = loop.after(kGiveUpSeconds, [&] { loop.quit(99); });
  EXPECT_EQ(loop.run(), 7);
  EXPECT_NE(backgroundThread, mainThread);
  EXPECT_EQ(dispatchedThread, mainThread);
}

TEST(QtMainLoopTest, ASerialQueueRunsItsItemsInOrderOffTheMainThread) {
  QtMainLoop loop;
  SerialQueue& queue = loop.serialQueue("log");
  EXPECT_EQ(&queue, &loop.serialQueue("log"));
  EXPECT_NE(&queue, &loop.serialQueue("network"));

  const std::thread::id mainThread = std::this_thread::get_id();
  std::vector<int> seen;
  bool offMain = true;
  for (int i = 0; i < 200; ++i) {
    queue.async([&, i] {
      seen.push_back(i);
      offMain = offMain && std::this_thread::get_id() != mainThread;
    });
  }
  queue.drain();
  ASSERT_EQ(seen.size(), 200U);
  for (int i = 0; i < 200; ++i) EXPECT_EQ(seen[static_cast<std::size_t>(i)], i);
  EXPECT_TRUE(offMain);
}

TEST(QtMainLoopTest, QuitBeforeRunEndsTheRunAtOnce) {
  QtMainLoop loop;
  loop.quit(4);
  EXPECT_EQ(loop.run(), 4);
}

TEST(QtMainLoopTest, LocalTimeFollowsTheTimeZone) {
  const char* saved = std::getenv("TZ");
  const std::string previous = saved != nullptr ? saved : "";
  setenv("TZ", "Asia/Tokyo", 1);  // UTC+9, no daylight saving
  tzset();
  QtMainLoop loop;
  // 2026-05-28T20:26:40Z, a Thursday; 05:26:40 on Friday in Tokyo.
  const CalendarFields f = loop.localTime(1'780'000'000.5);
  if (saved != nullptr) {
    setenv("TZ", previous.c_str(), 1);
  } else {
    unsetenv("TZ");
  }
  tzset();
  EXPECT_EQ(f.year, 2026);
  EXPECT_EQ(f.month, 5);
  EXPECT_EQ(f.day, 29);
  EXPECT_EQ(f.hour, 5);
  EXPECT_EQ(f.minute, 26);
  EXPECT_EQ(f.second, 40);
  EXPECT_EQ(f.weekday, 5);
}

}  // namespace
}  // namespace tarry::platform::qt
