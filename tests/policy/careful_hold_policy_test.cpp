#include "guard/careful_hold_policy.h"

#include "platform/sim/memory_defaults_store.h"
#include "platform/sim/sim_audio.h"
#include "platform/sim/sim_main_loop.h"
#include "platform/sim/sim_process_info.h"
#include "platform/sim/sim_workspace.h"
#include "settings/preferences.h"
#include "settings/tunables.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

namespace tarry::guard {
namespace {

using settings::T;
using Reasons = std::vector<std::string>;

/// No windows: what they show is in careful_unsaved_work.scn and UnsavedTitles below.
struct NoWindows final : platform::WindowList {
  std::vector<platform::WindowInfo> windowsOf(std::int32_t) override { return {}; }
  bool setFrame(std::uint32_t, double, double, double, double, bool) override { return false; }
};

// 2024-01-05 00:00 UTC, a Friday.
constexpr double kFridayMidnight = 1704412800.0;
constexpr double kHour = 3600.0;

class CarefulHoldPolicyTest : public ::testing::Test {
 protected:
  platform::sim::SimMainLoop loop{1000.0, kFridayMidnight + 10 * kHour};
  platform::sim::MemoryDefaultsStore store;
  settings::Preferences prefs{store};
  settings::Tunables tunables;
  platform::sim::SimWorkspace workspace;
  platform::sim::SimProcessInfo processes;
  platform::sim::SimAudio audio;
  NoWindows windows;
  std::vector<std::string> counted;
  CarefulHoldPolicy policy{{prefs, tunables, loop, workspace, processes, audio, windows},
                           [this](std::string_view name, std::int64_t n) {
                             counted.push_back(std::string(name) + "+" + std::to_string(n));
                           }};

  void workHours(int from, int to, bool weekdaysOnly) {
    prefs.setBool("workHours", true);
    prefs.setInteger("workFrom", from);
    prefs.setInteger("workTo", to);
    prefs.setBool("workWeekdays", weekdaysOnly);
  }
  bool carefulAt(double wall) {
    loop.setWallClock(wall);
    return policy.isCarefulNow();
  }
  static platform::RunningApp app(std::int32_t pid, std::string bundleID) {
    platform::RunningApp a;
    a.pid = pid;
    a.bundleID = std::move(bundleID);
    return a;
  }
};

TEST_F(CarefulHoldPolicyTest, HoldTimesApplyRuleCarefulFactorAndClamps) {
  EXPECT_DOUBLE_EQ(policy.holdDuration(Combo::quit, "short").seconds, 1.0);

  workHours(0, 0, false);  // careful all day
  prefs.setDouble("holdSeconds", 2.0);
  const auto careful = policy.holdDuration(Combo::quit, "long");
  EXPECT_DOUBLE_EQ(careful.seconds, 6.0);
  EXPECT_TRUE(careful.careful);
  prefs.setDouble("holdSeconds", 7.0);
  EXPECT_DOUBLE_EQ(policy.holdDuration(Combo::quit, "long").seconds, 14.0);
  tunables.setNumber(T::maxHoldSec, 20);
  EXPECT_DOUBLE_EQ(policy.holdDuration(Combo::quit, "long").seconds, 20.0);

  // The rule word is for Ctrl+Q only; careful mode is for all three.
  prefs.setDouble("logoutHold", 5.0);
  EXPECT_DOUBLE_EQ(policy.holdDuration(Combo::logout, "long").seconds, 7.5);
  EXPECT_FALSE(policy.isGuarded(Combo::close));
  prefs.setDouble("closeHold", 1.0);
  EXPECT_TRUE(policy.isGuarded(Combo::close));
  EXPECT_DOUBLE_EQ(policy.holdDuration(Combo::close, "short").seconds, 1.5);
}

TEST_F(CarefulHoldPolicyTest, WorkHoursAcrossMidnightTestTodaysWeekday) {
  // Friday and Saturday 23:00 and Saturday 02:00 are in careful_work_hours.scn.
  workHours(22, 6, true);
  EXPECT_TRUE(carefulAt(kFridayMidnight + 5.99 * kHour));    // Friday 05:59
  EXPECT_FALSE(carefulAt(kFridayMidnight + 6 * kHour));      // Friday 06:00, end is exclusive
  EXPECT_FALSE(carefulAt(kFridayMidnight + 21.99 * kHour));  // Friday 21:59
  EXPECT_TRUE(carefulAt(kFridayMidnight + 74 * kHour));      // Monday 02:00

  prefs.setBool("workWeekdays", false);
  EXPECT_TRUE(carefulAt(kFridayMidnight + 47 * kHour));

  loop.setUtcOffset(-3 * kHour);  // hours are local, not UTC
  workHours(9, 17, true);
  EXPECT_FALSE(carefulAt(kFridayMidnight + 11 * kHour));  // 08:00 local
  EXPECT_TRUE(carefulAt(kFridayMidnight + 12 * kHour));   // 09:00 local
  EXPECT_FALSE(carefulAt(kFridayMidnight + 20 * kHour));  // 17:00 local

  workHours(8, 8, false);
  for (int h = 0; h < 48; ++h) EXPECT_TRUE(carefulAt(kFridayMidnight + h * kHour)) << h;
}

TEST_F(CarefulHoldPolicyTest, MicrophoneCountsOnlyWithMicStrict) {
  audio.microphone = true;  // micStrict with the microphone on: careful_work_hours.scn
  EXPECT_FALSE(policy.isCarefulNow());
  prefs.setBool("micStrict", true);
  audio.microphone = false;
  EXPECT_FALSE(policy.isCarefulNow());
  workHours(9, 17, false);  // 10:00: work hours decide alone
  EXPECT_TRUE(policy.isCarefulNow());
}

TEST_F(CarefulHoldPolicyTest, BusyReasonsComeInTheirFixedOrder) {
  workspace.setEquivalents(platform::IdentifierSet::terminals, {"org.gnome.Terminal"});
  processes.add(100, 1, "gnome-terminal-");
  processes.add(101, 100, "bash");
  processes.add(102, 101, "make", std::nullopt, 45);
  processes.add(103, 102, "cc1plus", std::nullopt, 30);
  audio.setPlaying(103, true);
  audio.setRecording(102, true);
  audio.setPlaying(999, true);  // another app's stream

  EXPECT_EQ(policy.busyReasons(app(100, "org.gnome.Terminal")),
            (Reasons{"Playing sound", "Using the microphone", "`make` is running", "Working hard"}));
  EXPECT_EQ(processes.sleeps(), (std::vector<double>{300}));

  // A system that cannot tell per-process use gives no sound reasons, even with streams open.
  audio.perProcess = false;
  processes.setCpuPercent(102, 0);
  EXPECT_EQ(policy.busyReasons(app(100, "org.gnome.Terminal")), (Reasons{"`make` is running"}));
  // The same tree in an app that is not a terminal runs no "command".
  EXPECT_EQ(policy.busyReasons(app(100, "org.example.Editor")), Reasons{});
  // An app whose process is gone: nothing, and no error.
  EXPECT_EQ(policy.busyReasons(app(555, "org.gnome.Terminal")), Reasons{});
}

TEST_F(CarefulHoldPolicyTest, TerminalCommandSkipsShellsAndNamelessProcesses) {
  // Each chain hangs below its own terminal process: terminal → first → second → ...
  std::int32_t base = 10;
  const auto reasonsWith =
      [&](std::vector<std::pair<std::optional<std::string>, std::optional<std::string>>> chain) {
        base += 100;
        processes.add(base, 1, "kitty");
        std::int32_t pid = base;
        for (auto& [name, exe] : chain) {
          processes.add(pid + 1, pid, name, exe);
          ++pid;
        }
        return policy.busyReasons(app(base, "net.kovidgoyal.kitty"));
      };
  EXPECT_EQ(reasonsWith({{"zsh", {}}, {"TMUX", {}}, {"Bash", {}}, {"iTermServer-3.5", {}}, {"Python3", {}}}),
            (Reasons{"`Python3` is running"}));
  // No readable name: the executable's file name; neither: skipped.
  EXPECT_EQ(reasonsWith({{"fish", {}}, {{}, {}}, {{}, "htop"}}), (Reasons{"`htop` is running"}));
  EXPECT_EQ(reasonsWith({{"sh", {}}, {"", "make"}}), (Reasons{"`make` is running"}));
  EXPECT_EQ(reasonsWith({{"sh", {}}, {"", {}}}), (Reasons{"A command is running"}));
  EXPECT_EQ(reasonsWith({{"login", {}}, {"screen", {}}, {"nu", {}}, {"pwsh", {}}}), Reasons{});
  // Case does not matter in the identifier either.
  processes.add(20, 1, "xterm");
  processes.add(21, 20, "less");
  workspace.setEquivalents(platform::IdentifierSet::terminals, {"xterm"});
  EXPECT_EQ(policy.busyReasons(app(20, "XTerm")), (Reasons{"`less` is running"}));
}

TEST_F(CarefulHoldPolicyTest, TreeIsBreadthFirstUniqueAndCappedAt400) {
  // A wide, deep tree of 1001 processes, with links that a walker must not follow twice.
  processes.add(1000, 1, "app");
  for (std::int32_t i = 1; i <= 1000; ++i) processes.add(1000 + i, 1000 + (i - 1) / 10, "helper");
  processes.addExtraChild(1000, 1000);  // itself
  processes.addExtraChild(1003, 1001);  // a sibling listed again
  processes.addExtraChild(1050, 1000);  // a cycle back to the root

  const auto tree = processTree(processes, 1000);
  ASSERT_EQ(tree.size(), kMaxTreeProcesses);
  EXPECT_EQ(std::set<std::int32_t>(tree.begin(), tree.end()).size(), tree.size());
  for (std::size_t i = 0; i < tree.size(); ++i) EXPECT_EQ(tree[i], 1000 + static_cast<std::int32_t>(i));

  // Beyond the cap nothing is sampled: a hot process at depth 401 does not make the app busy.
  processes.setCpuPercent(1000 + 400, 400);
  EXPECT_EQ(policy.busyReasons(app(1000, "org.example.App")), Reasons{});
  processes.setCpuPercent(1000 + 399, 400);
  EXPECT_EQ(policy.busyReasons(app(1000, "org.example.App")), (Reasons{"Working hard"}));
}

TEST_F(CarefulHoldPolicyTest, CpuLoadIsSummedOverTheTreeAgainstTheThreshold) {
  processes.add(50, 1, "app", std::nullopt, 35);
  processes.add(51, 50, "worker", std::nullopt, 24.9);
  processes.add(60, 1, "other", std::nullopt, 100);  // not in the tree
  EXPECT_EQ(policy.busyReasons(app(50, "")), Reasons{});
  processes.setCpuPercent(51, 25);  // 60 % of one core: at the threshold counts
  EXPECT_EQ(policy.busyReasons(app(50, "")), (Reasons{"Working hard"}));

  tunables.setNumber(T::busyCpuPercent, 150);
  tunables.setNumber(T::busySampleMs, 500);
  processes.setCpuPercent(50, 149);
  processes.setCpuPercent(51, 0);
  EXPECT_EQ(policy.busyReasons(app(50, "")), Reasons{});
  processes.setCpuPercent(50, 125);  // one and a half cores' worth over the tree
  processes.setCpuPercent(51, 25);
  EXPECT_EQ(policy.busyReasons(app(50, "")), (Reasons{"Working hard"}));
  EXPECT_EQ(processes.sleeps().back(), 500);
}

TEST(UnsavedTitles, MarkersOfCommonEditorsCountPlainTitlesDoNot) {
  for (const char* title :
       {"*Untitled Document 1 - gedit", "● main.cpp - tarry - Visual Studio Code", "• notes", "notes.txt *",
        "notes.txt*", "notes.txt* - Kate", "notes.txt * — KWrite", "notes.txt • - Sublime Text",
        "report.odt [Modified]", "draft (modified) - Editor", "  *drawing.svg - Inkscape",
        "notes.txt + (~/src) - VIM", "Report [unsaved]"}) {
    EXPECT_TRUE(titleShowsUnsavedWork(title)) << title;
  }
  for (const char* title : {"", "   ", "notes.txt - gedit", "Inbox • Mail", "C++ reference - Firefox",
                            "a * b - Calculator", "Modified files - Git", "1 + (2) - Calculator"}) {
    EXPECT_FALSE(titleShowsUnsavedWork(title)) << title;
  }
}

TEST_F(CarefulHoldPolicyTest, AttemptsAreTalliedByLocalHour) {
  loop.setUtcOffset(2 * kHour);
  loop.setWallClock(kFridayMidnight + 7.5 * kHour);  // 09:30 local
  policy.recordAttemptHour(Combo::quit);
  policy.recordAttemptHour(Combo::close);
  EXPECT_EQ(counted, (std::vector<std::string>{"hour.09+1", "hour.09+1"}));
}

}  // namespace
}  // namespace tarry::guard
