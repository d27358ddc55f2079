#pragma once

#include "app/consent_controller.h"
#include "guard/guard.h"
#include "guard/hud_display.h"
#include "platform/alerts.h"
#include "platform/appearance.h"
#include "platform/consent_view.h"
#include "platform/event_tap.h"
#include "platform/login_items.h"
#include "platform/main_loop.h"
#include "platform/network_status.h"
#include "platform/workspace.h"
#include "settings/preferences.h"
#include "settings/remote_config.h"
#include "settings/settings_controller.h"
#include "settings/tunables.h"

#include <functional>
#include <limits>
#include <memory>
#include <string>

namespace tarry::common {
class Counters;
}  // namespace tarry::common

namespace tarry::diagnostics {
class Log;
class TelemetrySender;
}  // namespace tarry::diagnostics

namespace tarry::app {

/// Where the status item, the windows, Undo Quit, RAM Saver, the log uploader and the update check
/// plug into the delegate. Each may be left empty: the delegate then writes one log line saying
/// what was asked (or does nothing visible) and never pretends the work was done.
/// NOTE: hooks run on the main thread.
struct AppHooks {
  // ---- Status item and menus ----
  /// Builds the application's main menu (launch step).
  std::function<void()> setUpMainMenu;
  /// Creates the status item (launch step).
  std::function<void()> setUpStatusItem;
  /// Redraws the status item and its menu's live rows; `paused` is the pause in force now.
  std::function<void(bool paused)> refreshStatusItem;
  /// Updates the counter text of the status item / menu.
  std::function<void()> updateMenuCounter;

  // ---- Windows (through the window presenter) ----
  /// Brings the application forward (the presenter's activation).
  std::function<void()> bringForward;
  /// Shows the Settings window: centred if it was not visible, then in front and focused.
  std::function<void()> showSettingsWindow;
  /// Re-reads the Settings window's contents.
  std::function<void()> refreshSettingsWindow;
  /// True while the Settings window is on screen.
  std::function<bool()> settingsWindowVisible;
  /// True while a modal alert or dialog is up.
  std::function<bool()> modalWindowUp;
  /// Shows the Statistics window / the App Rules window / the About window.
  std::function<void()> showStatsWindow;
  std::function<void()> showRulesWindow;
  std::function<void()> showAboutWindow;

  // ---- Undo Quit and RAM Saver ----
  /// Starts Undo Quit with a weak reference to the guard (launch step).
  std::function<void(std::weak_ptr<guard::Guard>)> startUndo;
  /// Re-arms RAM Saver's periodic check after its settings changed.
  std::function<void()> rescheduleRamSaver;
  /// Runs after a fetched configuration was applied: backends that were handed a tunable take it
  /// again.
  std::function<void()> tunablesApplied;

  // ---- Logs and updates ----
  /// Starts the diagnostic logging and the crash recorder, before the launch sequence.
  std::function<void()> startLogging;
  /// Gives the log uploader its turn; `force` at exit.
  std::function<void(bool force)> logUploaderTurn;
  /// Starts the update check in automatic mode (the delegate has already applied the
  /// once-per-process rule).
  std::function<void()> automaticUpdateCheck;
  /// After a blocked shortcut: the update nudge's check (compares `blockedSinceUpdate`).
  std::function<void()> updateNudgeCheck;

  // ---- Process ----
  /// One line to the system log (standard error, which the session's journal keeps).
  std::function<void(const std::string&)> systemLog;
  /// Ends the application loop; the entry then calls `applicationWillTerminate`.
  std::function<void()> terminate;
  /// Asks the desktop for keyboard access when the guard is not trusted (a prompt where one
  /// exists; on X11 there is none, so the reason is logged and Settings shows it).
  std::function<void()> promptForTrust;
};

/// What the delegate works with. NOTE: every reference must outlive the delegate.
struct AppDelegateDeps {
  platform::MainLoop& loop;
  platform::EventTap& tap;
  platform::LoginItems& loginItems;
  platform::Appearance& appearance;
  platform::Alerts& alerts;
  platform::NetworkMonitor& networkMonitor;
  platform::NetworkStatus& networkStatus;
  platform::ConsentView& consentView;
  platform::Workspace& workspace;
  settings::Preferences& prefs;
  settings::Tunables& tunables;
  settings::RemoteConfig& remoteConfig;
  common::Counters& counters;
  diagnostics::Log& log;
  diagnostics::TelemetrySender& telemetry;
  guard::HudDisplay& hud;
  /// The running version ("1.2.0").
  std::string version;
  /// The configured server ("" when none), for the consent texts.
  std::string serverBase;
};

/// The window presenter's two stamps (system uptime in seconds; the distant past at first).
struct PresenterStamps {
  double ignoreReopenUntil = -std::numeric_limits<double>::infinity();
  double lastOwnActivation = -std::numeric_limits<double>::infinity();
};

/// The application delegate: the consent gate, the launch sequence (once), the self-re-arming
/// permission poll, the pause, reopen and termination, the network monitor and the ping.
/// NOTE: main thread only. Timers and callbacks hold the delegate weakly (through `alive_`) and
/// do nothing once it is gone.
class AppDelegate final {
 public:
  AppDelegate(AppDelegateDeps deps, guard::GuardDeps guardDeps);
  ~AppDelegate();
  AppDelegate(const AppDelegate&) = delete;
  AppDelegate& operator=(const AppDelegate&) = delete;

  /// The hooks other parts fill in; set them before `applicationDidFinishLaunching`.
  [[nodiscard]] AppHooks& hooks() { return hooks_; }

  // ---- Application events ----
  /// The consent gate; `loginLaunch` when the session started this process at login.
  void applicationDidFinishLaunching(bool loginLaunch);
  /// The "terminate" line, the "quit" event (waiting at most `telemetryWaitSec`), the forced log
  /// upload. Runs once; later calls do nothing.
  void applicationWillTerminate();
  /// The user started the program again (a second launch). Always true.
  bool applicationShouldHandleReopen();
  /// The application became active (a window of it took the focus): Settings shows fresh values.
  void applicationDidBecomeActive();
  /// A message from a second launch ("show-settings [ACTIVATION-TOKEN]", "pause MINUTES",
  /// "resume"); the answer for it ("ok", or "error: …").
  std::string handOver(const std::string& message);

  // ---- Actions ----
  void openSettings();
  void openStats();
  void openRules();
  void openAbout();
  /// Pauses protection for `minutes` (15, 60), or until 06:00 local time for 0.
  void pauseFor(int minutes);
  void resumeNow();
  /// Redraws the status item (remembers whether the pause was in force).
  void refreshStatusItem();
  /// The process-wide change hook: Settings window, status item, RAM Saver's schedule.
  void changed();

  // ---- Launch and poll ----
  /// Runs the launch sequence unless it has run (given to the consent controller as `onAgree`).
  void runLaunchSequence();
  /// (Re)arms the one-shot permission poll.
  void startPoll();
  /// One poll tick (the timer calls it, then re-arms).
  void pollTick();
  /// The automatic update check, at most once per process.
  void automaticUpdateCheck();
  /// One firing of the ping timer.
  void ping();

  // ---- State ----
  [[nodiscard]] guard::Guard& guardian() { return *guardian_; }
  [[nodiscard]] std::weak_ptr<guard::Guard> weakGuard() const { return guardian_; }
  /// The Settings logic; absent until the launch sequence has run.
  [[nodiscard]] settings::SettingsController* settings() { return settings_.get(); }
  [[nodiscard]] bool launched() const { return settings_ != nullptr; }
  [[nodiscard]] ConsentController& consent() { return consent_; }
  [[nodiscard]] PresenterStamps& presenter() { return presenter_; }
  /// True while the guard's keys are grabbed (the tap is in place).
  [[nodiscard]] bool tapActive() const;
  /// True while the pause is in force.
  [[nodiscard]] bool paused() const;
  [[nodiscard]] bool loginLaunch() const { return loginLaunch_; }
  [[nodiscard]] bool lastTrusted() const { return lastTrusted_; }
  [[nodiscard]] bool lastPaused() const { return lastPaused_; }
  /// The version `lastVersion` held before an update; empty otherwise.
  [[nodiscard]] const std::string& previousVersion() const { return previousVersion_; }
  /// The XDG activation token (or startup id) the last second launch brought along; the window
  /// presenter hands it to the window system so that Settings may take the focus. Empty if none.
  [[nodiscard]] const std::string& activationToken() const { return activationToken_; }
  /// The interval of the poll armed last (0 before the first).
  [[nodiscard]] double pollInterval() const { return pollInterval_; }
  /// Shortcuts blocked while a newer release is known (the update nudge reads and resets it).
  int blockedSinceUpdate = 0;

 private:
  void startGuard();
  void stopGuard();
  void startNetworkMonitor();
  void fetchRemoteConfig();
  void remoteConfigDone();
  /// (Re)creates the ping timer from `pingMinutes`.
  void armPing();
  void versionBookkeeping();
  void bringForward();
  void refreshSettingsWindow();
  [[nodiscard]] bool settingsWindowVisible() const;
  void missing(const char* what) const;
  template <class F>
  [[nodiscard]] std::function<void()> weakly(F work);

  AppDelegateDeps deps_;
  AppHooks hooks_;
  std::shared_ptr<guard::Guard> guardian_;
  std::unique_ptr<settings::SettingsController> settings_;
  platform::Scheduled poll_;
  bool lastPaused_ = false;
  bool lastTrusted_ = false;
  ConsentController consent_;
  bool loginLaunch_ = false;
  platform::Scheduled pingTimer_;
  double lastRunBump_ = 0;
  platform::Scheduled updateCheckTimer_;
  bool autoCheckDone_ = false;
  bool terminated_ = false;
  double pollInterval_ = 0;
  std::string previousVersion_;
  std::string lastTapError_;
  std::string activationToken_;
  PresenterStamps presenter_;
  /// Weak references to this token stand for weak references to the delegate.
  std::shared_ptr<char> alive_ = std::make_shared<char>();
};

/// The next 06:00 local time strictly after `now` (seconds since 1970), searching forward; now +
/// 8 hours when the calendar has no such time (a clock change skipping it).
[[nodiscard]] double nextSixAM(const platform::MainLoop& loop, double now);

}  // namespace tarry::app
