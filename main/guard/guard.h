#pragma once

#include "common/snap.h"
#include "guard/combo.h"
#include "guard/hold_policy.h"
#include "guard/hud_display.h"
#include "guard/undo_hooks.h"
#include "platform/activity.h"
#include "platform/event_tap.h"
#include "platform/main_loop.h"
#include "platform/sound.h"
#include "platform/workspace.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tarry::settings {
class Preferences;
class Tunables;
}  // namespace tarry::settings

namespace tarry::common {
class Counters;
}  // namespace tarry::common

namespace tarry::diagnostics {
class AppTelemetry;
class Log;
}  // namespace tarry::diagnostics

namespace tarry::guard {

/// What the guard works with. NOTE: every reference must outlive the guard and any background
/// check it started (they all live as long as the program).
struct GuardDeps {
  platform::MainLoop& loop;
  platform::EventTap& events;
  platform::Workspace& workspace;
  platform::Sound& sound;
  platform::Activity& power;
  const settings::Preferences& prefs;
  const settings::Tunables& tunables;
  common::Counters& counters;
  diagnostics::Log& log;
  HudDisplay& hud;
  HoldPolicy& policy;
  UndoHooks& undo;
  diagnostics::AppTelemetry& telemetry;
};

/// A read-only view of the guard's state, for the status shell, the scenario runner and tests.
struct GuardState {
  bool tapInstalled = false;
  bool armed = false;
  Combo combo = Combo::quit;
  double holdDuration = 0;
  /// Seconds held so far (0 when not armed).
  double elapsed = 0;
  std::int64_t holdSerial = 0;
  std::int64_t swallowedCode = -1;
  std::int32_t pendingPID = 0;
  bool lastCareful = false;
  std::string lastMode;
  std::vector<std::string> holdReasons;
  bool hasHoldSnap = false;
  /// Why the guard does not protect now, in words for the user (the status menu and the
  /// permission poll show it): the tap could not be made (another program holds a combination,
  /// the display cannot be reached), or it is in place but cannot work (no window manager announces
  /// the active window, the display was lost). Empty when it guards.
  std::string problem;
};

/// The key guard: sees every key press of the session through the event tap, swallows Ctrl+Q, Ctrl+W and
/// Ctrl+Shift+Q, and lets the action through only after a completed hold or a second press.
/// NOTE: main thread only. Timers, work items and background checks hold the guard weakly, so
/// nothing runs on a destroyed guard; background results are matched to their hold by `holdSerial`.
class Guard final {
 public:
  explicit Guard(GuardDeps deps);
  ~Guard();
  Guard(const Guard&) = delete;
  Guard& operator=(const Guard&) = delete;

  /// Installs the event tap unless one is in place; true when a tap is in place.
  bool installTap();
  /// Stops any hold and any pending press and removes the tap (trust was withdrawn).
  void removeTap();
  /// Reads the state of the tap and the workspace again and logs a problem that is new (once).
  /// NOTE: the owner's periodic poll calls it; the guard keeps no timer of its own, so an idle
  /// program wakes once per poll.
  void checkProblem();
  /// The tap callback: pass the event on, or swallow it.
  platform::TapVerdict handleEvent(const platform::KeyEvent& event);
  /// The guarded combination an event types; nothing for every other event.
  [[nodiscard]] static std::optional<Combo> classify(const platform::KeyEvent& event);

  /// Called once for every blocked accidental quit, before the total `all.saved` is read.
  std::function<void()> onQuitBlocked;

  [[nodiscard]] GuardState state() const;

 private:
  /// Decides what a guarded key-down does; true means swallow.
  bool evaluate(Combo combo, const platform::KeyEvent& event);
  void beginHold(double duration, Combo combo, const platform::RunningApp& app, std::int64_t keyCode);
  void tick();
  void finishHold();
  void cancelHold();
  void stopHold();
  void clearPending();
  void perform(Combo combo, const platform::RunningApp& app, std::int64_t keyCode);
  void quitApp(const platform::RunningApp& app);
  /// `app` is the app the blocked press was aimed at, when known (for the log).
  void noteBlocked(Combo combo, const platform::RunningApp* app);
  void extendHold(std::int64_t serial, double multiplier, const std::vector<std::string>& reasons);

  void startBackgroundChecks(const platform::RunningApp& app, std::int64_t serial);
  [[nodiscard]] bool isDock(const std::string& bundleID) const;
  [[nodiscard]] bool isNeverQuit(const std::string& bundleID) const;
  [[nodiscard]] bool isNeverTerminate(const std::string& bundleID) const;

  // Stored properties, in their documented order.
  std::unique_ptr<platform::TapHandle> tap;
  bool armed = false;
  Combo combo = Combo::quit;
  double startTime = 0;  // system uptime
  double holdDuration = 0;
  std::int64_t holdCode = -1;
  std::int64_t holdSerial = 0;
  std::int64_t swallowedCode = -1;
  platform::Scheduled ticker;
  HudDisplay& hud;
  std::optional<platform::RunningApp> targetApp;
  std::int32_t pendingPID = 0;
  Combo pendingCombo = Combo::quit;
  double pendingAt = 0;  // seconds since 1970
  platform::Scheduled pendingWork;
  std::unique_ptr<platform::ActivityToken> activity;
  bool askedListen = false;
  // (onQuitBlocked is public, above.)
  bool tapFailed = false;
  bool lastCareful = false;
  std::string lastMode;
  std::vector<std::string> holdReasons;
  std::optional<common::Snap> holdSnap;

  GuardDeps deps_;
  /// The current problem (see `GuardState::problem`), the error of the last failed tap
  /// creation, and the problem line the log last told.
  [[nodiscard]] std::string currentProblem() const;
  std::string tapError_;
  std::string loggedProblem_;
  /// Press-twice mode: the app of the waiting first press (names it in the log when it lapses).
  std::optional<platform::RunningApp> pendingApp_;
  /// NOTE: there is one guard per process, so this is the once-per-process flag of the tap failure line.
  bool loggedTapFailure_ = false;
  /// Weak references to this token stand for weak references to the guard.
  std::shared_ptr<char> alive_ = std::make_shared<char>();
};

/// "quit " + name, "close this window", "send it to " + name (what Ctrl+Shift+Q does on Linux).
[[nodiscard]] std::string actionText(Combo combo, const std::string& appName);
/// How the log names an app: "Mousepad (org.xfce.mousepad)"; the id or the name alone when the
/// other is missing.
[[nodiscard]] std::string appLabel(const platform::RunningApp& app);

}  // namespace tarry::guard
