#include "actions/quit_others.h"
#include "actions/ram_saver.h"
#include "actions/undo.h"
#include "common/app_lists.h"

#include "common/counters.h"
#include "platform/sim/sim_alerts.h"
#include "platform/sim/sim_platform.h"
#include "platform/sim/sim_process_info.h"
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

RunningApp app(std::int32_t pid, const std::string& id, const std::string& name, bool regular = true) {
  RunningApp a;
  a.pid = pid;
  a.bundleID = id;
  a.localizedName = name;
  a.path = "/apps/" + id + ".desktop";
  a.regular = regular;
  return a;
}

class AppActionsTest : public ::testing::Test {
 protected:
  AppActionsTest() {
    p.workspace.setEquivalents(platform::IdentifierSet::neverTerminate, {"org.gnome.Nautilus"});
    p.workspace.setEquivalents(platform::IdentifierSet::ramSaverSkip, {"org.keepassxc.KeePassXC"});
  }
  void add(const RunningApp& a, std::uint64_t megabytes = 0) {
    p.workspace.addApp(a);
    windows.byPid[a.pid] = {
        platform::WindowInfo{static_cast<std::uint32_t>(a.pid), a.localizedName, "", 0, 0, 100, 100, false}};
    processes.add(a.pid, 0, a.bundleID);
    processes.setFootprint(a.pid, megabytes << 20);
  }
  std::vector<std::int32_t> terminated() const {
    std::vector<std::int32_t> out;
    for (const auto& a : p.workspace.terminateRequests) out.push_back(a.pid);
    return out;
  }

  platform::sim::SimPlatform p;
  settings::Preferences prefs{p.defaults};
  settings::Tunables tunables;
  common::Counters counters{p.defaults, p.loop};
  test_support::RecordingHud hud;
  platform::sim::SimWindowList windows;
  platform::sim::SimLauncher launcher;
  platform::sim::SimAlerts alerts;
  platform::sim::SimProcessInfo processes;
  Undo undo{UndoDeps{p.loop, p.workspace, windows, launcher, p.tap, prefs, tunables, counters, hud}};
  QuitOthers others{QuitOthersDeps{p.workspace, undo, alerts, prefs, tunables, counters, hud}};
  RamSaver saver{RamSaverDeps{p.loop, p.workspace, processes, undo, prefs, tunables, counters, hud}};
};

TEST_F(AppActionsTest, QuitOthersWithNothingElseOnlySaysSo) {
  add(app(10, "org.gnome.TextEditor", "Text Editor"));
  add(app(p.workspace.ownPid(), "tarry", "Tarry"));
  add(app(11, "org.gnome.Nautilus", "Files"));
  add(app(12, "panel", "Panel", false));
  p.workspace.setFrontmost(10);
  others.run();
  EXPECT_TRUE(alerts.shown.empty());
  EXPECT_EQ(hud.flashes, std::vector<std::string>{"Nothing else to quit."});
}

TEST_F(AppActionsTest, QuitOthersAsksOnceQuitsTheRestAndCanBeUndone) {
  add(app(10, "org.gnome.TextEditor", "Text Editor"));
  add(app(20, "firefox", "Firefox"));
  add(app(21, "gimp", "GIMP"));
  add(app(22, "org.gnome.Calculator", "Calculator"));  // App Rules: never
  add(app(23, "writer", "Writer"));                    // unsaved work: stays
  prefs.setAppModes({{"org.gnome.Calculator", "never"}});
  p.workspace.setFrontmost(10);
  p.workspace.refuseTerminate.insert(23);

  alerts.answers = {1};  // Cancel
  others.run();
  ASSERT_EQ(alerts.shown.size(), 1U);
  EXPECT_EQ(alerts.shown[0].message, "Quit 3 other apps?");
  EXPECT_EQ(alerts.shown[0].informativeText, "Firefox, GIMP and Writer");
  EXPECT_EQ(alerts.shown[0].buttons, (std::vector<std::string>{"Quit Them", "Cancel"}));
  EXPECT_TRUE(terminated().empty());

  alerts.answers = {0};
  others.run();
  EXPECT_EQ(terminated(), (std::vector<std::int32_t>{20, 21, 23}));
  EXPECT_EQ(counters.allTime("bulkRuns"), 1);
  EXPECT_EQ(counters.allTime("bulk"), 3);
  p.loop.advance(9);
  EXPECT_EQ(hud.flashes.back(), "Quit 2 apps. Ctrl+Alt+Z to undo.");
  EXPECT_EQ(undo.undoTitle(), "Undo Quit 2 Apps");

  // One other app: the singular.
  p.workspace.removeApp(23);
  add(app(30, "gimp", "GIMP"));
  others.run();
  EXPECT_EQ(alerts.shown.back().message, "Quit 1 other app?");
}

TEST_F(AppActionsTest, RamSaverReasonsInOrder) {
  tunables.setText(settings::T::neverQuitExtra, " com.example.keep , ");
  tunables.setText(settings::T::ramSaverSkipExtra, "com.example.skip");
  prefs.setAppModes({{"com.example.ruled", "never"}});
  const double hour = 3600;
  p.loop.advance(2 * hour);
  add(app(10, "com.example.front", "Front"));
  p.workspace.setFrontmost(10);
  const auto reason = [&](const RunningApp& a) {
    return saver.keepReason(a, hour, p.loop.uptime(), 10).value_or("candidate");
  };
  EXPECT_EQ(reason(app(1, "x", "X", false)), "not a regular app");
  EXPECT_EQ(reason(app(2, "", "Nameless")), "no bundle id");
  EXPECT_EQ(reason(app(p.workspace.ownPid(), "tarry", "Tarry")), "Tarry itself");
  EXPECT_EQ(reason(app(3, "org.gnome.Nautilus", "Files")), "file manager");
  EXPECT_EQ(reason(app(4, "com.example.keep", "Keep")), "never-quit list");
  EXPECT_EQ(reason(app(5, "com.example.ruled", "Ruled")), "App Rules: never quit");
  EXPECT_EQ(reason(app(6, "com.spotify.client", "Spotify")),
            "built-in skip list (chat, music, mail, passwords)");
  EXPECT_EQ(reason(app(7, "org.keepassxc.KeePassXC", "KeePassXC")),
            "built-in skip list (chat, music, mail, passwords)");
  EXPECT_EQ(reason(app(8, "com.example.skip", "Skip")), "extra skip list");
  EXPECT_EQ(reason(app(9, "gone", "Gone")), "already quitting");  // not running
  EXPECT_EQ(reason(app(10, "com.example.front", "Front")), "frontmost");
  add(app(11, "recent", "Recent"));
  p.loop.advance(5 * 60);
  saver.noteActivated(11);
  p.loop.advance(5 * 60 + 30);
  EXPECT_EQ(reason(app(11, "recent", "Recent")), "5 min ago");
  add(app(12, "idle", "Idle"));
  EXPECT_EQ(reason(app(12, "idle", "Idle")), "candidate") << "never seen active: idle since the watch began";
}

TEST_F(AppActionsTest, RamSaverQuitsTheLongestIdleAndReportsMemory) {
  prefs.setDouble("ramSaverHours", 3);  // not a valid choice: off
  p.defaults.set("ramSaverApp",
                 platform::Value{{"a", 1}, {"b", 1}, {"c", 1}, {"d", 1}, {"e", -1}, {"f", 30}});
  add(app(1, "a", "A"), 512);
  add(app(2, "b", "B"), 256);
  add(app(3, "c", "C"), 700);
  add(app(4, "d", "D"), 80);
  add(app(5, "e", "E"), 900);  // -1: never
  add(app(6, "f", "F"), 900);  // 30 h is dropped on reading: the global limit (off) applies
  processes.add(31, 3, "c-helper");
  processes.setFootprint(31, std::uint64_t{68} << 20);
  saver.noteActivated(2);
  p.loop.advance(60);
  saver.noteActivated(4);
  p.loop.advance(2 * 3600);
  saver.noteActivated(3);  // active again: C is the newest
  p.loop.advance(3600.5);
  p.workspace.setFrontmost(0);

  std::vector<std::pair<int, std::int64_t>> runs;
  saver.onRunDone = [&](int n, std::int64_t mb) { runs.emplace_back(n, mb); };
  p.workspace.refuseTerminate.insert(4);
  saver.run();
  p.loop.advance(9);
  // Max 3 per run, longest idle first: A (since start), B, D; D asks about unsaved work.
  EXPECT_EQ(terminated(), (std::vector<std::int32_t>{1, 2, 4}));
  ASSERT_EQ(runs.size(), 1U);
  EXPECT_EQ(runs[0], (std::pair<int, std::int64_t>{2, 768}));
  EXPECT_EQ(counters.allTime("ramSaver.quits"), 2);
  EXPECT_EQ(counters.allTime("ramSaver.mb"), 768);
  EXPECT_EQ(hud.flashes.back(), "RAM Saver closed 2 idle apps · 768 MB freed. Ctrl+Alt+Z to undo.");
  EXPECT_EQ(undo.undoTitle(), "Undo Quit 2 Apps");

  // Paused or off: nothing at all. The timer runs it every ramSaverCheckMin minutes otherwise.
  p.workspace.terminateRequests.clear();
  prefs.setDouble("pauseUntil", p.loop.now() + 3600);
  saver.reschedule();
  p.loop.advance(30 * 60);
  EXPECT_TRUE(terminated().empty());
  prefs.setDouble("pauseUntil", 0);
  tunables.setText(settings::T::ramSaverSkipExtra, "");
  p.workspace.refuseTerminate.clear();
  p.loop.advance(6 * 60 + 10);  // one tick, within the 20 % tolerance
  p.loop.advance(9);
  EXPECT_EQ(terminated(), (std::vector<std::int32_t>{4, 3}));
  EXPECT_EQ(runs.back(), (std::pair<int, std::int64_t>{2, 848})) << "C's helper process counts too";
  EXPECT_EQ(hud.flashes.back(), "RAM Saver closed 2 idle apps · 848 MB freed. Ctrl+Alt+Z to undo.");
}

TEST(AppActionsTexts, SizesAndNames) {
  EXPECT_EQ(sizeText(1536), "1.5 GB");
  EXPECT_EQ(sizeText(1023), "1023 MB");
  EXPECT_EQ(sizeText(1024), "1.0 GB");
  EXPECT_EQ(common::namesText({"A", "B"}), "A and B");
  EXPECT_EQ(common::namesText({"A", "B", "C", "D", "E"}, 4), "A, B, C and 2 more");
  EXPECT_EQ(common::commaList(" a, ,b ,"), (std::vector<std::string>{"a", "b"}));
}

}  // namespace
}  // namespace tarry::actions
