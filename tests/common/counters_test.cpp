#include "common/counters.h"

#include "platform/sim/memory_defaults_store.h"
#include "platform/sim/sim_main_loop.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

namespace tarry::common {
namespace {

constexpr double kMarch14 = 1'773'446'400.0;  // 2026-03-14T00:00:00Z
constexpr double kDay = 86400.0;

class CountersTest : public ::testing::Test {
 protected:
  platform::sim::SimMainLoop loop{1000.0, kMarch14 + 12 * 3600};
  platform::sim::MemoryDefaultsStore store;
  Counters counters{store, loop};

  [[nodiscard]] std::int64_t value(const std::string& key) const {
    const auto v = store.get(key);
    return v ? v->get<std::int64_t>() : -1;
  }
};

TEST_F(CountersTest, AddsLandInTheLocalDayWhileThePeriodAndAllTimeKeepGoing) {
  loop.setUtcOffset(3600);                      // UTC+1
  loop.setWallClock(kMarch14 + 23 * 3600 - 1);  // 23:59:59 local on the 14th
  counters.add("saved");
  loop.advance(2);  // 00:00:01 local on the 15th
  counters.add("saved", 4);
  EXPECT_EQ(value("day.20260314.saved"), 1);
  EXPECT_EQ(value("day.20260315.saved"), 4);
  EXPECT_EQ(value("period.saved"), 5);
  EXPECT_EQ(value("all.saved"), 5);
  EXPECT_EQ(counters.today("saved"), 4);
  EXPECT_EQ(counters.period("saved"), 5);
  EXPECT_EQ(counters.allTime("saved"), 5);
  EXPECT_EQ(counters.today("quit"), 0);  // never written
  EXPECT_EQ(counters.allTime("quit"), 0);
}

TEST_F(CountersTest, NewPeriodDropsOnlyPeriodKeys) {
  counters.add("saved");
  counters.add("bulk", 3);
  store.set("periodical", 7);  // shares the letters, not the "period." prefix
  loop.advance(100);
  counters.startNewPeriod();
  EXPECT_TRUE(store.keys("period.").empty());
  EXPECT_EQ(value("periodical"), 7);
  EXPECT_EQ(value("all.saved"), 1);
  EXPECT_EQ(value("day.20260314.bulk"), 3);
  EXPECT_DOUBLE_EQ(counters.periodSince(), loop.now());
}

TEST_F(CountersTest, AutomaticPeriodFollowsTheClampedChoice) {
  struct Case {
    platform::Value choice;
    double age;
    bool restarted;
  };
  const std::vector<Case> cases = {
      {2, 7 * kDay - 3600, false},  // 6 days 23 hours: kept
      {2, 7 * kDay, true},          // exactly 7 days: restarted
      {1, kDay, true},
      {0, 400 * kDay, false},   // never
      {-4, 400 * kDay, false},  // negative acts as never
      {9, 29 * kDay, false},    // 9 acts as 3: monthly
      {9, 30 * kDay, true},
      {"weekly", 400 * kDay, false},
  };
  for (const auto& c : cases) {
    store.set("stats.auto", c.choice);
    store.set("stats.periodSince", loop.now() - c.age);
    counters.add("saved");
    EXPECT_EQ(counters.checkAutoPeriod(), c.restarted) << c.choice << " after " << c.age;
    EXPECT_EQ(store.get("period.saved").has_value(), !c.restarted) << c.choice;
  }
}

TEST_F(CountersTest, StartStampsMissingDatesAndFoldsOldCounters) {
  store.set("stats.allSince", 1000.0);
  store.set("savedCount", 12);
  store.set("quitCount", 3);
  store.set("protectedCount", 2.0);
  counters.add("saved");
  counters.start();
  EXPECT_DOUBLE_EQ(counters.allSince(), 1000.0);  // kept
  EXPECT_DOUBLE_EQ(counters.periodSince(), loop.now());
  EXPECT_EQ(value("all.saved"), 13);
  EXPECT_EQ(value("period.saved"), 13);
  EXPECT_EQ(value("all.quit"), 3);
  EXPECT_EQ(value("all.protected"), 2);
  EXPECT_EQ(value("day.20260314.saved"), 1);  // old totals belong to no day
  EXPECT_FALSE(store.get("savedCount"));
  EXPECT_FALSE(store.get("quitCount"));
  EXPECT_FALSE(store.get("protectedCount"));
  counters.start();  // nothing left to fold
  EXPECT_EQ(value("all.saved"), 13);
}

TEST_F(CountersTest, OverflowIsFatal) {
  // The preferences store stops at the end of the range instead of wrapping; reaching it is how an
  // overflow shows. (Going past it is undefined in the memory store, so the test stops at the end.)
  store.set("all.saved", std::numeric_limits<std::int64_t>::max() - 2);
  EXPECT_DEATH(counters.add("saved", 2), "overflowed");
  store.set("all.saved", std::numeric_limits<std::int64_t>::max());
  counters.add("saved", -1);  // the other way round is an ordinary add
  EXPECT_EQ(value("all.saved"), std::numeric_limits<std::int64_t>::max() - 1);
}

}  // namespace
}  // namespace tarry::common
