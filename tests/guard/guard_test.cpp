#include "guard/guard.h"

#include "common/counters.h"
#include "diagnostics/basic_app_telemetry.h"
#include "diagnostics/log.h"
#include "guard/basic_hold_policy.h"
#include "platform/sim/sim_platform.h"
#include "settings/preferences.h"
#include "settings/tunables.h"
#include "support/recording_hud.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tarry::guard {
namespace {

using platform::EventType;
using platform::KeyEvent;
using platform::TapVerdict;
using settings::T;

constexpr std::uint64_t kCmd = platform::kFlagCommand;
constexpr std::uint64_t kShift = platform::kFlagShift;

struct FakeUndo final : UndoHooks {
  bool canUndo() override { return false; }
  void restoreLast() override {}
  std::optional<common::Snap> capture(const platform::RunningApp& app) override {
    ++captures;
    common::Snap snap;
    snap.pid = app.pid;
    snap.name = "capture " + std::to_string(captures);
    return snap;
  }
  void remember(const platform::RunningApp&, common::Snap snap, HudDisplay&) override {
    remembered.push_back(snap.name);
  }
  int captures = 0;
  std::vector<std::string> remembered;
};

KeyEvent key(EventType type, std::int64_t code, std::uint64_t flags, std::u16string text,
             bool repeat = false) {
  KeyEvent e;
  e.type = type;
  e.keyCode = code;
  e.flags = flags;
  e.text = std::move(text);
  e.autorepeat = repeat;
  return e;
}

class GuardTest : public ::testing::Test {
 protected:
  void SetUp() override {
    p.loop.setWallClock(1'773'482'400.0);  // 2026-03-14T10:00:00Z
    p.workspace.addApp({"com.apple.Safari", "Safari", {"safari", 0, 0, nullptr}, 501, "", true});
    p.workspace.addApp({"com.apple.TextEdit", "TextEdit", {"textedit", 0, 0, nullptr}, 502, "", true});
    p.workspace.setFrontmost(501);
    makeGuard();
  }

  void makeGuard() {
    guard = std::make_unique<Guard>(GuardDeps{p.loop, p.tap, p.workspace, p.sound, p.activity, prefs,
                                              tunables, counters, log, hud, policy, undo, telemetry});
    ASSERT_TRUE(guard->installTap());
  }

  TapVerdict down(std::int64_t code = platform::kKeyQ, std::uint64_t flags = kCmd, std::u16string text = u"q",
                  bool repeat = false) {
    return p.tap.inject(key(EventType::keyDown, code, flags, std::move(text), repeat));
  }
  TapVerdict up(std::int64_t code = platform::kKeyQ) {
    return p.tap.inject(key(EventType::keyUp, code, kCmd, u"q"));
  }
  std::int64_t all(const char* name) const { return counters.allTime(name); }

  platform::sim::SimPlatform p;
  settings::Preferences prefs{p.defaults};
  settings::Tunables tunables;
  common::Counters counters{p.defaults, p.loop};
  diagnostics::Log log{p.loop, p.files, p.defaults, tunables};
  diagnostics::BasicAppTelemetry telemetry{p.workspace};
  BasicHoldPolicy policy{prefs, tunables};
  test_support::RecordingHud hud;
  FakeUndo undo;
  std::unique_ptr<Guard> guard;
};

TEST(GuardClassify, FollowsTheLayoutsCharacterAndFallsBackToTheKeyCode) {
  struct Case {
    std::int64_t code;
    std::uint64_t flags;
    std::u16string text;
    std::optional<Combo> want;
  };
  // The plain combinations, Ctrl+Shift+W, Super+Ctrl+Q, Ctrl+Alt+Q and no Command are in not_guarded.scn and
  // the others.
  const std::vector<Case> cases = {
      {12, kCmd, u"a", std::nullopt},                                         // AZERTY: the Q key types a
      {0, kCmd, u"q", Combo::quit},                                           // AZERTY: the A key types q
      {12, kCmd, u"", Combo::quit},                                           // no character: physical Q
      {13, kCmd | kShift, u"", std::nullopt}, {12, kCmd, u"й", Combo::quit},  // not in 33…126: physical Q
      {12, kCmd, u"qq", Combo::quit},  // more than one unit: physical Q
      {0, kCmd, u"", std::nullopt},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Guard::classify(key(EventType::keyDown, c.code, c.flags, c.text)), c.want)
        << "code " << c.code << " flags " << c.flags;
  }
}

TEST_F(GuardTest, PressTwiceWindowIsMeasuredOnTheWallClock) {
  prefs.setInteger("style", 1);
  EXPECT_EQ(down(), TapVerdict::swallow);
  up();
  // The wall clock jumps ahead (a time sync) while hardly any uptime passes: the first press is stale,
  // so the second one counts the first as blocked and starts a new wait instead of quitting.
  p.loop.advance(0.2);
  p.loop.setWallClock(p.loop.now() + 10);
  EXPECT_EQ(down(), TapVerdict::swallow);
  up();
  EXPECT_EQ(all("saved"), 1);
  EXPECT_EQ(all("twice.confirmed"), 0);
  EXPECT_EQ(guard->state().pendingPID, 501);
  // Within the window the same app and combination confirm; the expiry of the wait no longer fires.
  p.loop.advance(1.5);
  EXPECT_EQ(down(), TapVerdict::swallow);
  EXPECT_EQ(all("twice.confirmed"), 1);
  EXPECT_EQ(p.workspace.terminateRequests.size(), 1U);
  p.loop.advance(5);
  EXPECT_EQ(all("saved"), 1);
}

TEST_F(GuardTest, PressTwiceNeedsTheSameCombinationAndApp) {
  prefs.setInteger("style", 1);
  prefs.setDouble("closeHold", 1);
  down();
  up();
  p.loop.advance(0.3);
  // Ctrl+W on the same app is a different first press: the pending Ctrl+Q counts as blocked.
  EXPECT_EQ(down(platform::kKeyW, kCmd, u"w"), TapVerdict::swallow);
  EXPECT_EQ(all("saved"), 1);
  EXPECT_EQ(all("twice.first"), 2);
  p.loop.advance(2);
  EXPECT_EQ(all("wblocked"), 1);
  EXPECT_TRUE(p.tap.posted.empty());
}

TEST_F(GuardTest, NothingRunsOnADestroyedGuard) {
  prefs.setDouble("closeHold", 1);
  p.loop.setHoldBackground(true);
  down();  // a hold with its ticker and three background checks
  ASSERT_TRUE(guard->state().armed);
  prefs.setInteger("style", 1);
  p.workspace.setFrontmost(502);
  down(platform::kKeyW, kCmd, u"w");  // swallowed by the running hold
  guard.reset();
  EXPECT_FALSE(p.tap.installed());

  const auto callsBefore = hud.calls.size();
  const auto keysBefore = p.defaults.keys("all.").size();
  p.loop.releaseBackground();
  p.loop.advance(10);
  EXPECT_EQ(p.tap.inject(key(EventType::keyDown, platform::kKeyQ, kCmd, u"q")), TapVerdict::pass);
  EXPECT_EQ(hud.calls.size(), callsBefore);
  EXPECT_EQ(p.defaults.keys("all.").size(), keysBefore);
  EXPECT_EQ(hud.updates, 0);
  EXPECT_EQ(undo.captures, 0);  // held checks released after the guard died do not start
  EXPECT_TRUE(p.workspace.terminateRequests.empty());
  EXPECT_EQ(p.activity.openCount(), 0);
}

TEST_F(GuardTest, SnapshotFromTheHoldIsUsedAtQuitAndStaleOnesAreDropped) {
  p.loop.setHoldBackground(true);
  down();
  up();  // cancelled before the capture came back
  p.loop.releaseBackground();
  p.loop.runDue();
  EXPECT_FALSE(guard->state().hasHoldSnap);

  down();
  p.loop.advance(0.5);
  p.loop.releaseBackground();  // the second hold's capture
  p.loop.runDue();
  EXPECT_TRUE(guard->state().hasHoldSnap);
  p.loop.advance(2);
  ASSERT_EQ(undo.remembered.size(), 1U);
  EXPECT_EQ(undo.remembered[0], "capture 2");  // not captured again at quit
  EXPECT_EQ(undo.captures, 2);
  EXPECT_FALSE(guard->state().hasHoldSnap);
}

TEST_F(GuardTest, QuitBlockedCallbackRunsBeforeTheTotalIsRead) {
  int calls = 0;
  guard->onQuitBlocked = [&] {
    ++calls;
    p.defaults.set("all.saved", 50);  // the owner's statistics moved the total
  };
  down();
  up();
  EXPECT_EQ(calls, 1);
  ASSERT_FALSE(hud.calls.empty());
  EXPECT_EQ(hud.calls.back(), "flash 🛡 50 accidental quits blocked [tarry]");
  EXPECT_NE(p.files.content(*p.defaults.get("logDir")->get_ptr<const std::string*>() + "/events.log")
                .find("accidental quit blocked total=50: "),
            std::string::npos);
}

TEST_F(GuardTest, ProblemsAreInTheStateAndLoggedOncePerReason) {
  const auto events = [&] {
    return p.files.content(*p.defaults.get("logDir")->get_ptr<const std::string*>() + "/events.log");
  };
  const auto count = [](const std::string& text, const std::string& part) {
    std::size_t n = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
    return n;
  };
  EXPECT_EQ(guard->state().problem, "");

  // A window manager that does not say which window is active: the tap is in place but useless.
  p.workspace.problemText = "no EWMH window manager is running";
  EXPECT_EQ(guard->state().problem, "no EWMH window manager is running");
  for (int i = 0; i < 3; ++i) guard->checkProblem();  // the owner's poll, several times over
  EXPECT_EQ(count(events(), "keyboard guard not working: no EWMH window manager is running\n"), 1U)
      << events();
  p.tap.problemText = "lost the connection to the X display";
  guard->checkProblem();
  EXPECT_EQ(guard->state().problem, "lost the connection to the X display")
      << "the tap's problem comes first";
  p.tap.problemText.clear();
  p.workspace.problemText.clear();
  guard->checkProblem();
  EXPECT_EQ(count(events(), "keyboard guard working again\n"), 1U) << events();

  // Refused tap creation names the combination another program holds; retries log nothing more.
  guard->removeTap();
  p.tap.failCreate = true;
  EXPECT_FALSE(guard->installTap());
  EXPECT_FALSE(guard->installTap());
  EXPECT_EQ(guard->state().problem, p.tap.lastError());
  EXPECT_EQ(count(events(), "keyboard guard off: " + p.tap.lastError() + "\n"), 1U) << events();
}

TEST_F(GuardTest, MilestoneNumbersFollowTheTunables) {
  tunables.setNumber(T::milestoneFirst, 3);
  tunables.setNumber(T::milestoneSecond, 5);
  tunables.setNumber(T::milestoneStep, 4);
  std::vector<int> flashedAt;
  for (int total = 1; total <= 12; ++total) {
    const auto before = hud.calls.size();
    down();
    up();
    for (auto i = before; i < hud.calls.size(); ++i) {
      if (hud.calls[i].rfind("flash", 0) == 0) flashedAt.push_back(total);
    }
  }
  EXPECT_EQ(flashedAt, (std::vector<int>{3, 4, 5, 8, 12}));
}

TEST_F(GuardTest, WithoutTheHudAHoldStillRunsAndCounts) {
  prefs.setBool("showHUD", false);
  down();
  p.loop.advance(2.5);
  EXPECT_EQ(all("complete.quit"), 1);
  EXPECT_EQ(p.workspace.terminateRequests.size(), 1U);
  for (const auto& call : hud.calls) EXPECT_EQ(call.rfind("show", 0), std::string::npos) << call;
}

TEST_F(GuardTest, ListenPermissionIsAskedOnlyWhenMissingAndRemovingTheTapStopsQuietly) {
  prefs.setInteger("style", 1);
  down();  // a pending first press
  guard->removeTap();
  EXPECT_FALSE(guard->state().tapInstalled);
  p.loop.advance(5);
  EXPECT_EQ(all("saved"), 0);  // dropping the tap is not the user's block

  p.tap.failCreate = true;
  EXPECT_FALSE(guard->installTap());
  EXPECT_EQ(p.tap.listenRequests, 0);  // already granted
  EXPECT_EQ(all("tapFail"), 1);
}

TEST(BasicAppTelemetry, CategoriesIncludeThisDesktopsEquivalents) {
  platform::sim::SimWorkspace workspace;
  workspace.setEquivalents(platform::IdentifierSet::terminals, {"org.gnome.Terminal"});
  workspace.setEquivalents(platform::IdentifierSet::neverTerminate, {"org.gnome.Nautilus"});
  diagnostics::BasicAppTelemetry telemetry(workspace);
  const auto category = [&](const char* id) {
    platform::RunningApp app;
    app.bundleID = id;
    return telemetry.category(app);
  };
  EXPECT_EQ(category("org.gnome.Terminal"), "terminal");
  EXPECT_EQ(category("com.apple.Terminal"), "terminal");
  EXPECT_EQ(category("org.gnome.Nautilus"), "finder");
  EXPECT_EQ(category("com.apple.finder"), "finder");
  EXPECT_EQ(category("firefox"), "browser");
  EXPECT_EQ(category("org.gnome.gedit"), "other");
  EXPECT_EQ(category(""), "other");
}

}  // namespace
}  // namespace tarry::guard
