#include "stats/stats_controller.h"

#include "platform/sim/memory_defaults_store.h"
#include "platform/sim/sim_alerts.h"
#include "platform/sim/sim_main_loop.h"

#include <gtest/gtest.h>

#include <string>

namespace tarry::stats {
namespace {

using platform::Value;

constexpr double kMarch14 = 1773446400;  // 2026-03-14 00:00:00 UTC

class RecordingStatsView final : public platform::StatsView {
 public:
  void setActions(platform::StatsActions* a) override { actions = a; }
  void setTexts(const platform::StatsTexts& t) override { texts = t; }
  void setFigures(const platform::StatsFigures& f) override {
    figures = f;
    ++figureCalls;
  }
  void present() override { ++presents; }

  platform::StatsActions* actions = nullptr;
  platform::StatsTexts texts;
  platform::StatsFigures figures;
  int figureCalls = 0;
  int presents = 0;
};

class RecordingClipboard final : public platform::Clipboard {
 public:
  void setText(const std::string& t) override { text = t; }
  std::string text;
};

class StatsControllerTest : public ::testing::Test {
 protected:
  StatsControllerTest() {
    loop.setWallClock(kMarch14 + 9 * 3600);
    store.set("stats.allSince", kMarch14 - 90061);    // 1d 01h 01m 01s before
    store.set("stats.periodSince", kMarch14 + 3600);  // 8 h before
    auto owned = std::make_unique<RecordingStatsView>();
    view = owned.get();
    controller = std::make_unique<StatsController>(std::move(owned), "Tarry", counters, store, loop, alerts,
                                                   clipboard);
  }

  platform::sim::SimMainLoop loop;
  platform::sim::MemoryDefaultsStore store;
  common::Counters counters{store, loop};
  platform::sim::SimAlerts alerts;
  RecordingClipboard clipboard;
  RecordingStatsView* view = nullptr;
  std::unique_ptr<StatsController> controller;
};

TEST(StatsTexts, ElapsedTimeAndDates) {
  EXPECT_EQ(elapsedText(90061), "1d 01h 01m 01s");
  EXPECT_EQ(elapsedText(0), "0d 00h 00m 00s");
  EXPECT_EQ(elapsedText(86400 * 400 + 59), "400d 00h 00m 59s");
  platform::sim::SimMainLoop loop;
  loop.setUtcOffset(3600);
  EXPECT_EQ(dateText(kMarch14 + 5, loop), "14 Mar 2026, 01:00:05");
}

TEST_F(StatsControllerTest, WindowShowsEveryMetricWithItsPeriodLines) {
  ASSERT_EQ(view->texts.metricTitles.size(), 8u);
  EXPECT_EQ(view->texts.title, "Tarry Statistics");
  EXPECT_EQ(view->texts.metricTitles[4], "Ctrl+W presses blocked");
  EXPECT_EQ(view->texts.metricTitles[5], "Ctrl+Shift+Q presses blocked");
  counters.add("saved", 2);
  counters.add("lblocked", 1);
  store.set("period.saved", 5);
  store.set("stats.auto", 7);  // out of range: the last choice
  controller->show();
  EXPECT_EQ(view->presents, 1);
  EXPECT_EQ(view->figures.cells[0], (std::array<std::string, 3>{"2", "5", "2"}));
  EXPECT_EQ(view->figures.cells[5], (std::array<std::string, 3>{"1", "1", "1"}));
  EXPECT_EQ(view->figures.autoIndex, 3);
  EXPECT_EQ(view->texts.autoItems[3], "Every month");
  EXPECT_EQ(view->figures.periodInfo, "This period began 14 Mar 2026, 01:00:00\nRunning for 0d 08h 00m 00s");
  EXPECT_EQ(view->figures.allInfo,
            "Counting all-time since 12 Mar 2026, 22:58:59\nThat is 1d 10h 01m 01s ago");
}

TEST_F(StatsControllerTest, RefreshesEverySecondOnlyWhileOpen) {
  EXPECT_FALSE(controller->timerRunning());
  controller->show();
  EXPECT_TRUE(controller->timerRunning());
  counters.add("quit", 1);
  loop.advance(1.0);
  EXPECT_EQ(view->figures.cells[1][0], "1");
  EXPECT_EQ(view->figures.periodInfo.substr(view->figures.periodInfo.find("Running")),
            "Running for 0d 08h 00m 01s");

  view->actions->windowWillClose();
  EXPECT_FALSE(controller->timerRunning());
  const int calls = view->figureCalls;
  counters.add("quit", 1);
  loop.advance(5.0);
  EXPECT_EQ(view->figureCalls, calls);
  controller->show();  // opening again starts it again, once
  controller->show();
  EXPECT_TRUE(controller->timerRunning());
  EXPECT_EQ(view->figures.cells[1][0], "2");
}

TEST_F(StatsControllerTest, NewPeriodAsksFirstAndCancelChangesNothing) {
  counters.add("saved", 3);
  controller->show();
  alerts.answers = {1};  // Cancel
  view->actions->resetPeriod();
  ASSERT_EQ(alerts.shown.size(), 1u);
  EXPECT_EQ(alerts.shown[0].message, "Start a new period?");
  EXPECT_EQ(alerts.shown[0].informativeText, "“All time” keeps going.");
  EXPECT_EQ(alerts.shown[0].buttons, (std::vector<std::string>{"Start New Period", "Cancel"}));
  EXPECT_EQ(counters.period("saved"), 3);
  EXPECT_EQ(counters.periodSince(), kMarch14 + 3600);

  alerts.answers = {0};
  view->actions->resetPeriod();
  EXPECT_EQ(counters.period("saved"), 0);
  EXPECT_EQ(counters.allTime("saved"), 3);
  EXPECT_EQ(view->figures.cells[0], (std::array<std::string, 3>{"3", "0", "3"}));
  EXPECT_EQ(counters.periodSince(), loop.now());
}

TEST_F(StatsControllerTest, ChoosingAnAutomaticPeriodChecksItAtOnce) {
  counters.add("saved", 1);
  view->actions->autoChanged(2);  // every week: the 8-hour-old period stays
  EXPECT_EQ(store.get("stats.auto"), Value(2));
  EXPECT_EQ(counters.period("saved"), 1);
  view->actions->autoChanged(1);  // every day: still young enough
  EXPECT_EQ(counters.period("saved"), 1);
  loop.advance(16 * 3600);
  view->actions->autoChanged(1);
  EXPECT_EQ(counters.period("saved"), 0);
  EXPECT_EQ(view->figures.autoIndex, 1);
}

TEST_F(StatsControllerTest, CopiesThePlainTextFormat) {
  counters.add("saved", 4);
  counters.add("bulk", 2);
  view->actions->copyStats();
  EXPECT_EQ(clipboard.text,
            "Tarry statistics, copied 14 Mar 2026, 09:00:00\n"
            "This period since 14 Mar 2026, 01:00:00 · all-time since 12 Mar 2026, 22:58:59\n"
            "Metric: today / this period / all time\n"
            "Accidental quits blocked: 4 / 4 / 4\n"
            "Quits you confirmed: 0 / 0 / 0\n"
            "Protected-app quits stopped: 0 / 0 / 0\n"
            "Unsaved-work warnings: 0 / 0 / 0\n"
            "Ctrl+W presses blocked: 0 / 0 / 0\n"
            "Ctrl+Shift+Q presses blocked: 0 / 0 / 0\n"
            "Apps reopened from the list: 0 / 0 / 0\n"
            "Apps closed by Quit All Others: 2 / 2 / 2");
}

}  // namespace
}  // namespace tarry::stats
