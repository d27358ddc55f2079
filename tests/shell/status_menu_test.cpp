#include "app/status_menu.h"

#include "platform/sim/memory_defaults_store.h"
#include "platform/sim/sim_main_loop.h"
#include "platform/sim/sim_status_item.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tarry::app {
namespace {

using platform::MenuRow;
using platform::RecentRow;
using platform::Value;

constexpr double kMarch14 = 1773446400;  // 2026-03-14 00:00:00 UTC

class StatusMenuTest : public ::testing::Test {
 protected:
  StatusMenuTest() {
    loop.setWallClock(kMarch14 + 14 * 3600);  // 14:00 UTC
    auto owned = std::make_unique<platform::sim::SimStatusItem>();
    view = owned.get();
    StatusMenuHooks hooks;
    hooks.tapInstalled = [this] { return tap; };
    hooks.tapProblem = [] { return std::string("Ctrl+Q is taken by another program"); };
    hooks.undoTitle = [this] { return undoTitle; };
    hooks.refreshSettings = [this] { trace.push_back("settings"); };
    hooks.pauseFor = [this](int minutes) {
      trace.push_back("pause " + std::to_string(minutes));
      store.set("pauseUntil", loop.now() + minutes * 60.0);
    };
    hooks.reopenRecent = [this](const std::string& path) { trace.push_back("reopen " + path); };
    hooks.log = [this](const std::string& line) { trace.push_back("log " + line); };
    menu = std::make_unique<StatusMenu>(std::move(owned), store, counters, loop, std::move(hooks));
  }

  platform::sim::SimMainLoop loop;
  platform::sim::MemoryDefaultsStore store;
  common::Counters counters{store, loop};
  platform::sim::SimStatusItem* view = nullptr;
  bool tap = true;
  std::optional<std::string> undoTitle;
  std::vector<std::string> trace;
  std::unique_ptr<StatusMenu> menu;
};

TEST(StatusMenuTexts, HeaderNamesEveryStateWithTheMissingGuardFirst) {
  const std::string why = "Ctrl+Q is taken by another program";
  EXPECT_EQ(headerText(false, why, true, true, false, 2.0), "Keyboard guard off: " + why);
  EXPECT_EQ(headerText(false, "", false, true, false, 2.0), "Keyboard guard off");
  EXPECT_EQ(headerText(true, "no EWMH window manager is running", true, true, false, 2.0),
            "Keyboard guard not working: no EWMH window manager is running");
  EXPECT_EQ(headerText(true, "", true, false, false, 2.0), "Paused");
  EXPECT_EQ(headerText(true, "", false, false, true, 2.0), "Off");
  EXPECT_EQ(headerText(true, "", false, true, true, 2.0), "Active, press Ctrl+Q twice");
  EXPECT_EQ(headerText(true, "", false, true, false, 2.0), "Active, hold Ctrl+Q 2s");
  EXPECT_EQ(headerText(true, "", false, true, false, 2.5), "Active, hold Ctrl+Q 2.5s");
  EXPECT_EQ(headerText(true, "", false, true, false, 0.5), "Active, hold Ctrl+Q 0.5s");
}

TEST(StatusMenuTexts, CounterRowCountsWords) {
  EXPECT_EQ(counterRowText(1, 1), "1 accidental quit blocked · 1 today");
  EXPECT_EQ(counterRowText(0, 0), "0 accidental quits blocked · 0 today");
  EXPECT_EQ(counterRowText(12, 3), "12 accidental quits blocked · 3 today");
}

TEST(StatusMenuTexts, RecentsListEveryEntryThenClear) {
  const Value recents = Value::parse(R"([{"name":"Mail","path":"/a/mail.desktop"},{"path":"/b/x.desktop"},
                                         {"name":"","path":"/c"},"junk",{"name":"Web"}])");
  const std::vector<RecentRow> rows = recentRows(recents);
  ASSERT_EQ(rows.size(), 6u);
  EXPECT_EQ(rows[0], (RecentRow{RecentRow::Kind::reopen, "Reopen Mail", "/a/mail.desktop"}));
  EXPECT_EQ(rows[1].title, "Reopen app");
  EXPECT_EQ(rows[2].title, "Reopen app");
  EXPECT_EQ(rows[3], (RecentRow{RecentRow::Kind::reopen, "Reopen Web", ""}));
  EXPECT_EQ(rows[4].kind, RecentRow::Kind::separator);
  EXPECT_EQ(rows[5], (RecentRow{RecentRow::Kind::clear, "Clear List", ""}));

  const std::vector<RecentRow> none = {{RecentRow::Kind::placeholder, "Nothing quit yet", ""}};
  EXPECT_EQ(recentRows(std::nullopt), none);
  EXPECT_EQ(recentRows(Value::array()), none);
  EXPECT_EQ(recentRows(Value("not a list")), none);
}

TEST_F(StatusMenuTest, PauseTitleUsesTodayAndTomorrowOfTheLocalCalendar) {
  loop.setUtcOffset(2 * 3600);  // 16:00 local
  EXPECT_EQ(shortRelativeTime(kMarch14 + 14 * 3600 + 900, loop), "today, 16:15");
  EXPECT_EQ(shortRelativeTime(kMarch14 + 28 * 3600, loop), "tomorrow, 06:00");
  EXPECT_EQ(shortRelativeTime(kMarch14 + 24 * 3600 * 20 + 3600, loop), "3 Apr 2026, 03:00");
  // 23:30 UTC is already the 15th at 01:30 local: tomorrow, not today.
  EXPECT_EQ(shortRelativeTime(kMarch14 + 23.5 * 3600, loop), "tomorrow, 01:30");

  menu->refreshStatus();
  menu->chose(MenuRow::pauseFor15);
  EXPECT_EQ(view->row(MenuRow::pause).title, "Paused until today, 16:15");
  EXPECT_TRUE(view->row(MenuRow::resume).visible);
  EXPECT_EQ(view->icon, "pause.circle");
  EXPECT_EQ(view->row(MenuRow::header).title, "Paused");
  EXPECT_TRUE(menu->lastPaused);

  // The pause runs out: the next status refresh shows it without any action.
  loop.advance(15 * 60);
  menu->refreshStatus();
  EXPECT_EQ(view->row(MenuRow::pause).title, "Pause Protection");
  EXPECT_FALSE(view->row(MenuRow::resume).visible);
  EXPECT_EQ(view->icon, "command.circle.fill");
}

TEST_F(StatusMenuTest, StatusRefreshFollowsTheSettingsAndTheGuard) {
  menu->refreshStatus();
  EXPECT_TRUE(view->shown);
  EXPECT_EQ(view->accessibleName, "Tarry");
  EXPECT_EQ(view->icon, "command.circle.fill");
  EXPECT_EQ(view->row(MenuRow::header).title, "Active, hold Ctrl+Q 2s");
  EXPECT_FALSE(view->row(MenuRow::header).enabled);
  EXPECT_EQ(view->row(MenuRow::toggle).title, "Protect Ctrl+Q");
  EXPECT_TRUE(view->row(MenuRow::toggle).checked);
  EXPECT_EQ(view->row(MenuRow::settings).shortcut, "Ctrl+,");
  EXPECT_EQ(view->row(MenuRow::counter).title, "0 accidental quits blocked · 0 today");

  menu->chose(MenuRow::toggle);
  EXPECT_EQ(store.get("enabled"), Value(false));
  EXPECT_EQ(trace, (std::vector<std::string>{"settings"}));
  EXPECT_EQ(view->icon, "command.circle");
  EXPECT_FALSE(view->row(MenuRow::toggle).checked);
  EXPECT_EQ(view->row(MenuRow::header).title, "Off");

  // Paused wins over off for the icon; a missing guard wins over paused for the header.
  store.set("pauseUntil", loop.now() + 60);
  tap = false;
  menu->refreshStatus();
  EXPECT_EQ(view->icon, "pause.circle");
  EXPECT_EQ(view->row(MenuRow::header).title, "Keyboard guard off: Ctrl+Q is taken by another program");

  // No tray item while showMenuBar is off; turning it on makes a new one with its badge again.
  store.set("showMenuBar", false);
  menu->refreshStatus();
  EXPECT_FALSE(view->shown);
  EXPECT_FALSE(menu->lastCounterTitle.has_value());
  const int badges = view->badgeCalls;
  store.set("showMenuBar", true);
  menu->refreshStatus();
  EXPECT_TRUE(view->shown);
  EXPECT_EQ(view->badgeCalls, badges + 1);
  EXPECT_EQ(view->icon, "pause.circle");
}

TEST_F(StatusMenuTest, UnchangedCounterTitleAndRowsAreNotSetAgain) {
  menu->refreshStatus();
  EXPECT_EQ(view->badge.text, "0");
  EXPECT_EQ(view->badge.toolTip, "Tarry · 0 blocked today");
  const int badges = view->badgeCalls;
  const int icons = view->iconCalls;
  const int rows = view->rowCalls;
  const int recents = view->recentCalls;
  menu->refreshStatus();
  menu->refreshCounterTitle();
  menu->refreshRows();
  EXPECT_EQ(view->badgeCalls, badges);
  EXPECT_EQ(view->iconCalls, icons);
  EXPECT_EQ(view->rowCalls, rows);
  EXPECT_EQ(view->recentCalls, recents);

  counters.add("saved", 1);
  menu->refreshCounterTitle();
  EXPECT_EQ(view->badge.text, "1");
  EXPECT_EQ(menu->lastCounterTitle, " 1");
  EXPECT_EQ(view->row(MenuRow::counter).title, "1 accidental quit blocked · 1 today");
  EXPECT_EQ(view->badgeCalls, badges + 1);

  store.set("menuCounter", false);
  menu->refreshStatus();
  EXPECT_EQ(view->badge.text, "");
  EXPECT_EQ(view->badge.toolTip, "Tarry");
  EXPECT_EQ(menu->lastCounterTitle, "");
}

TEST_F(StatusMenuTest, MenuOpeningCountsAndRefreshesRecentsAndUndo) {
  menu->refreshStatus();
  EXPECT_FALSE(view->row(MenuRow::undo).visible);
  EXPECT_EQ(view->row(MenuRow::undo).shortcut, "Ctrl+Alt+Z");
  store.set("recents", Value::parse(R"([{"name":"Mail","path":"/apps/mail.desktop"}])"));
  undoTitle = "Undo Quit Mail";
  menu->menuNeedsUpdate();
  EXPECT_EQ(counters.allTime("open.menu"), 1);
  EXPECT_EQ(view->recents.front().title, "Reopen Mail");
  EXPECT_TRUE(view->row(MenuRow::undo).visible);
  EXPECT_EQ(view->row(MenuRow::undo).title, "Undo Quit Mail");

  view->actions->reopenRecent("/apps/mail.desktop");
  EXPECT_EQ(trace.back(), "reopen /apps/mail.desktop");
  view->actions->clearRecents();
  EXPECT_EQ(store.get("recents"), Value::array());
  EXPECT_EQ(view->recents.front().title, "Nothing quit yet");

  // A row whose hook nobody filled says so in the log instead of doing nothing silently.
  view->actions->chose(MenuRow::checkUpdates);
  EXPECT_EQ(trace.back(), "log status menu: the update check is not available in this build");
}

}  // namespace
}  // namespace tarry::app
