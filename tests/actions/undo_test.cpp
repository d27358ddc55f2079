#include "actions/undo.h"

#include "common/counters.h"
#include "platform/sim/sim_platform.h"
#include "platform/sim/sim_windows.h"
#include "settings/preferences.h"
#include "settings/tunables.h"
#include "support/recording_hud.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tarry::actions {
namespace {

using platform::RunningApp;
using platform::WindowInfo;

RunningApp app(std::int32_t pid, const std::string& id, const std::string& name) {
  RunningApp a;
  a.pid = pid;
  a.bundleID = id;
  a.localizedName = name;
  a.path = "/usr/share/applications/" + id + ".desktop";
  return a;
}

WindowInfo window(std::uint32_t id, const std::string& title, double x, double y, bool minimized = false) {
  WindowInfo w;
  w.id = id;
  w.title = title;
  w.x = x;
  w.y = y;
  w.width = 640;
  w.height = 480;
  w.minimized = minimized;
  return w;
}

class UndoTest : public ::testing::Test {
 protected:
  UndoTest() {
    // A relaunch starts the app again under a new pid, its windows where the app itself puts them.
    launcher.onLaunch = [this](const std::string& path) {
      for (const auto& [pid, a] : quit) {
        if (a.path != path) continue;
        RunningApp again = a;
        again.pid = pid + 1000;
        p.workspace.addApp(again);
        if (focusRelaunched) p.workspace.setFrontmost(again.pid);
        std::vector<WindowInfo> fresh;
        for (const auto& w : relaunchWindows[pid]) fresh.push_back(w);
        windows.byPid[again.pid] = fresh;
      }
    };
  }

  /// Runs the app, captures it, quits it the way the guard does.
  void quitApp(const RunningApp& a, std::vector<WindowInfo> live) {
    p.workspace.addApp(a);
    windows.byPid[a.pid] = std::move(live);
    quit[a.pid] = a;
    auto snap = undo.capture(a);
    ASSERT_TRUE(snap);
    (void)p.workspace.terminate(a);
    undo.remember(a, std::move(*snap), hud);
  }

  std::vector<std::string> journal(const std::string& prefix) {
    std::vector<std::string> out;
    for (const auto& e : p.journal.entries()) {
      if (e.line.rfind(prefix, 0) == 0) out.push_back(e.line);
    }
    return out;
  }

  platform::sim::SimPlatform p;
  settings::Preferences prefs{p.defaults};
  settings::Tunables tunables;
  common::Counters counters{p.defaults, p.loop};
  test_support::RecordingHud hud;
  platform::sim::SimWindowList windows{&p.journal};
  platform::sim::SimLauncher launcher{&p.journal};
  Undo undo{UndoDeps{p.loop, p.workspace, windows, launcher, p.tap, prefs, tunables, counters, hud}};
  std::map<std::int32_t, RunningApp> quit;
  std::map<std::int32_t, std::vector<WindowInfo>> relaunchWindows;
  bool focusRelaunched = true;
};

TEST_F(UndoTest, QuitThenUndoPutsWindowsBackAndMinimizesLast) {
  const RunningApp editor = app(501, "org.gnome.TextEditor", "Text Editor");
  // Two windows with the same title, one minimized, one untitled (never paired).
  quitApp(editor, {window(1, "notes", 100, 120), window(2, "notes", 700, 80, true), window(3, "", 5, 5)});
  relaunchWindows[501] = {window(11, "notes", 0, 0), window(12, "notes", 30, 30), window(13, "", 0, 0)};
  p.loop.runDue();
  ASSERT_EQ(hud.flashes, std::vector<std::string>{"Quit Text Editor. Ctrl+Alt+Z to undo."});
  EXPECT_TRUE(undo.canUndo());
  EXPECT_EQ(undo.undoTitle(), "Undo Quit Text Editor");
  ASSERT_EQ(undo.recents().size(), 1U);
  EXPECT_EQ(undo.recents()[0].path, editor.path);

  p.journal.clear();
  undo.restoreLast();
  p.loop.advance(1.0);
  EXPECT_FALSE(undo.canUndo()) << "an undo uses the record up";
  EXPECT_EQ(journal("launch"), std::vector<std::string>{"launch " + editor.path});
  // Each live window is taken once; the minimized one is moved first and minimized only after
  // its frame was set a second time.
  EXPECT_EQ(journal("window"), (std::vector<std::string>{
                                   "window 11 frame 100,120 640x480",
                                   "window 12 frame 700,80 640x480",
                                   "window 11 frame 100,120 640x480",
                                   "window 12 frame 700,80 640x480",
                                   "window 12 minimize",
                               }));
  EXPECT_EQ(hud.flashes.back(), "Brought Text Editor.");
  EXPECT_EQ(counters.allTime("reopened"), 1);
}

TEST_F(UndoTest, AppThatDoesNotEndWithinEightSecondsKeepsTheEarlierRecord) {
  const RunningApp first = app(501, "first", "First");
  quitApp(first, {window(1, "a", 0, 0)});
  p.loop.runDue();
  ASSERT_EQ(undo.undoTitle(), "Undo Quit First");

  const RunningApp stubborn = app(502, "stubborn", "Stubborn");
  p.workspace.refuseTerminate.insert(502);
  quitApp(stubborn, {window(2, "b", 0, 0)});
  p.loop.advance(8.1);
  EXPECT_EQ(undo.undoTitle(), "Undo Quit First");
  // It ends after the 8 s: too late to be recorded.
  p.workspace.removeApp(502);
  p.loop.advance(1.0);
  EXPECT_EQ(undo.undoTitle(), "Undo Quit First");
  EXPECT_EQ(hud.flashes.size(), 1U);
  // Still in the recents list: it was captured.
  EXPECT_EQ(undo.recents().front().name, "Stubborn");

  // The record expires 30 s after it was made: the menu hears of it, the hot key does nothing.
  int changes = 0;
  undo.onChange = [&] { ++changes; };
  p.loop.advance(21);
  EXPECT_EQ(changes, 1);
  EXPECT_FALSE(undo.canUndo());
  EXPECT_FALSE(undo.undoTitle());
  p.journal.clear();
  undo.restoreLast();
  p.loop.advance(1);
  EXPECT_TRUE(journal("launch").empty());
}

TEST_F(UndoTest, RecentsAreCappedAndMoveToTheFront) {
  for (int i = 0; i < 9; ++i)
    quitApp(app(600 + i, "app" + std::to_string(i), "App " + std::to_string(i)), {});
  auto list = undo.recents();
  ASSERT_EQ(list.size(), 8U);
  EXPECT_EQ(list.front().name, "App 8");
  EXPECT_EQ(list.back().name, "App 1") << "the oldest entry goes first";

  quitApp(app(700, "app3", "App 3"), {});
  list = undo.recents();
  ASSERT_EQ(list.size(), 8U);
  EXPECT_EQ(list.front().name, "App 3");
  EXPECT_EQ(std::count_if(list.begin(), list.end(), [](const RecentApp& r) { return r.name == "App 3"; }), 1);

  // A damaged list reads as empty rather than failing.
  p.defaults.set("recents", platform::Value{{"path", 3}});
  EXPECT_TRUE(undo.recents().empty());
  undo.clearRecents();
  EXPECT_FALSE(p.defaults.get("recents"));
}

TEST_F(UndoTest, BatchRecordsOnlyAppsThatEndedWithASnapshot) {
  int recorded = -1;
  std::size_t ended = 0;
  const auto done = [&](int n, const std::vector<QuitEntry>& gone) {
    recorded = n;
    ended = gone.size();
  };
  // No snapshot at all: nothing recorded, the completion hears 0.
  const RunningApp a = app(801, "a", "A");
  p.workspace.addApp(a);
  (void)p.workspace.terminate(a);
  undo.recordBatch({{a, a.path, "A"}}, done);
  p.loop.runDue();
  EXPECT_EQ(recorded, 0);
  EXPECT_EQ(ended, 1U);
  EXPECT_FALSE(undo.record());

  // Three captured; one refuses (unsaved work) and one path is gone by the time of the undo.
  std::vector<QuitEntry> batch;
  for (const auto& x : {app(802, "b", "B"), app(803, "c", "C"), app(804, "d", "D")}) {
    p.workspace.addApp(x);
    windows.byPid[x.pid] = {window(static_cast<std::uint32_t>(x.pid), x.localizedName, 1, 1)};
    quit[x.pid] = x;
    relaunchWindows[x.pid] = {window(static_cast<std::uint32_t>(x.pid + 5000), x.localizedName, 9, 9)};
    undo.captureAndKeep(x);
    batch.push_back({x, x.path, x.localizedName});
  }
  p.workspace.refuseTerminate.insert(803);
  for (const auto& e : batch) (void)p.workspace.terminate(e.app);
  undo.recordBatch(batch, done);
  p.loop.advance(9);
  EXPECT_EQ(recorded, 2);
  EXPECT_EQ(undo.undoTitle(), "Undo Quit 2 Apps");

  launcher.missing.insert(app(804, "d", "D").path);
  undo.undo();
  p.loop.advance(12);
  EXPECT_EQ(hud.flashes.back(), "Brought 1 of 2 apps.");
  EXPECT_EQ(counters.allTime("reopened"), 1);
}

TEST_F(UndoTest, SessionRestoringBrowserGetsCtrlShiftTOnceItHasTheFocus) {
  p.workspace.setEquivalents(platform::IdentifierSet::sessionRestorers, {"firefox"});
  const RunningApp firefox = app(901, "firefox", "Firefox");
  quitApp(firefox, {window(1, "Mozilla Firefox", 10, 10)});
  relaunchWindows[901] = {window(2, "New Tab", 0, 0)};  // not the restored window: stays unpaired
  p.loop.runDue();
  // The new window opens behind another app's: no keys yet, they would reach that app.
  focusRelaunched = false;
  p.workspace.addApp(app(42, "org.gnome.Terminal", "Terminal"));
  p.workspace.setFrontmost(42);
  undo.undo();
  p.loop.advance(2);
  EXPECT_TRUE(p.tap.posted.empty());
  p.workspace.setFrontmost(1901);
  p.loop.advance(9);
  ASSERT_EQ(p.tap.posted.size(), 2U);
  EXPECT_EQ(p.tap.posted[0].first.type, platform::EventType::keyDown);
  EXPECT_EQ(p.tap.posted[0].first.flags, platform::kFlagCommand | platform::kFlagShift);
  EXPECT_EQ(p.tap.posted[0].first.userData, platform::kOwnEventMarker);
  EXPECT_EQ(hud.flashes.back(), "Brought Firefox.") << "running again counts, paired or not";
}

TEST_F(UndoTest, ReopenFromTheListRestoresOrLaunchesPlainly) {
  const RunningApp editor = app(501, "editor", "Editor");
  quitApp(editor, {window(1, "doc", 50, 60)});
  relaunchWindows[501] = {window(21, "doc", 0, 0)};
  p.loop.runDue();
  undo.reopenRecent(editor.path);
  p.loop.advance(1);
  EXPECT_EQ(hud.flashes.back(), "Brought Editor.");

  // With Undo Quit off there is nothing to undo and the list only launches.
  prefs.setBool("undoQuit", false);
  p.journal.clear();
  undo.reopenRecent("/opt/other.desktop");
  undo.reopenRecent(editor.path);
  EXPECT_EQ(journal("launch"),
            (std::vector<std::string>{"launch /opt/other.desktop", "launch " + editor.path}));
  EXPECT_TRUE(journal("window").empty());
}

TEST(UndoTexts, ReportsAndCounts) {
  EXPECT_EQ(undoReport({"Files"}, 0), "Couldn't bring back Files.");
  EXPECT_EQ(undoReport({"A", "B", "C"}, 3), "Brought 3 apps.");
  EXPECT_EQ(apps(1), "app");
  EXPECT_EQ(apps(0), "apps");
}

}  // namespace
}  // namespace tarry::actions
