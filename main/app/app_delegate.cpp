#include "app/app_delegate.h"

#include "common/counters.h"
#include "diagnostics/log.h"
#include "diagnostics/telemetry_sender.h"
#include "settings/announcement.h"

#include <cmath>
#include <cstdlib>
#include <sstream>
#include <utility>

namespace tarry::app {
namespace {

using settings::T;

constexpr double kSecondsPerDay = 86400;
constexpr double kSixAM = 6 * 3600;
constexpr double kNoSixAMFallback = 28800;
/// Fast poll timers may fire this much late.
constexpr double kFastPollTolerance = 0.1;

double secondsIntoDay(const platform::CalendarFields& f) {
  return f.hour * 3600.0 + f.minute * 60.0 + f.second;
}

}  // namespace

double nextSixAM(const platform::MainLoop& loop, double now) {
  const double whole = std::floor(now);
  double candidate = whole - secondsIntoDay(loop.localTime(whole)) + kSixAM;
  // A clock change between the two moments shifts the local hour; a few corrections find the
  // moment that reads 06:00, unless the change skipped it.
  for (int attempt = 0; attempt < 4; ++attempt) {
    if (candidate <= now) {
      candidate += kSecondsPerDay;
      continue;
    }
    double off = kSixAM - secondsIntoDay(loop.localTime(candidate));
    if (off == 0) return candidate;
    if (off > kSecondsPerDay / 2) off -= kSecondsPerDay;
    if (off < -kSecondsPerDay / 2) off += kSecondsPerDay;
    candidate += off;
  }
  return now + kNoSixAMFallback;
}

AppDelegate::AppDelegate(AppDelegateDeps deps, guard::GuardDeps guardDeps)
    : deps_(std::move(deps)),
      guardian_(std::make_shared<guard::Guard>(guardDeps)),
      consent_(deps_.consentView, deps_.prefs, deps_.serverBase),
      lastRunBump_(deps_.loop.uptime()) {}

AppDelegate::~AppDelegate() {
  // Drop the token first: timers and callbacks still queued see the delegate gone.
  alive_.reset();
}

template <class F>
std::function<void()> AppDelegate::weakly(F work) {
  return [alive = std::weak_ptr<char>(alive_), work = std::move(work)]() mutable {
    if (alive.expired()) return;
    work();
  };
}

void AppDelegate::missing(const char* what) const {
  deps_.log.log(std::string(what) + ": not available in this build");
}

// MARK: - Consent gate

void AppDelegate::applicationDidFinishLaunching(bool loginLaunch) {
  loginLaunch_ = loginLaunch;
  if (hooks_.startLogging) hooks_.startLogging();
  if (!consent_.given()) {
    consent_.onAgree = weakly([this] { runLaunchSequence(); });
    consent_.onDisagree = weakly([this] {
      deps_.log.log("consent declined");
      if (hooks_.terminate) hooks_.terminate();
    });
    bringForward();
    consent_.show();
    return;
  }
  runLaunchSequence();
}

// MARK: - Launch sequence

void AppDelegate::runLaunchSequence() {
  if (settings_) return;
  deps_.counters.start();                                                // 1
  startNetworkMonitor();                                                 // 2
  deps_.counters.add("launches");                                        // 3
  const std::string today = deps_.counters.dayPrefix(deps_.loop.now());  // 4
  const auto stored = deps_.prefs.store().get("lastActiveDay");
  if (!stored || !stored->is_string() || stored->get<std::string>() != today) {
    deps_.prefs.store().set("lastActiveDay", today);
    deps_.counters.add("activeDays");
  }
  deps_.telemetry.send("launch");  // 5
  if (hooks_.logUploaderTurn) {    // 6
    hooks_.logUploaderTurn(false);
  }
  // 7: a fetched document may change the RAM Saver's period; its timer is rebuilt after every
  // document applied (never after a failed fetch). The ping runs whether or not the fetch ever
  // answers; its completion re-arms it with the fetched interval.
  deps_.remoteConfig.setAppliedHook(weakly([this] {
    if (hooks_.rescheduleRamSaver) hooks_.rescheduleRamSaver();
    if (hooks_.tunablesApplied) hooks_.tunablesApplied();
  }));
  fetchRemoteConfig();
  armPing();
  updateCheckTimer_ = deps_.loop.after(deps_.tunables.real(T::firstCheckDelaySec),  // 8
                                       weakly([this] { automaticUpdateCheck(); }));
  if (settings::applyLoginItemDefault(deps_.prefs, deps_.loginItems)) {  // 9
    deps_.log.log("login item registered");
  }
  settings::applyAppearance(deps_.prefs, deps_.appearance);  // 10
  if (hooks_.setUpMainMenu) hooks_.setUpMainMenu();          // 11
  settings::SettingsHooks settingsHooks;                     // 12
  settingsHooks.log = [this](const std::string& line) { deps_.log.log(line); };
  settingsHooks.systemLog = [this](const std::string& line) {
    if (hooks_.systemLog) hooks_.systemLog(line);
  };
  settingsHooks.sendEvent = [this](const std::string& event) { deps_.telemetry.send(event); };
  settingsHooks.rescheduleRamSaver = [this] {
    if (hooks_.rescheduleRamSaver) hooks_.rescheduleRamSaver();
  };
  settingsHooks.refreshWindow = [this] { refreshSettingsWindow(); };
  settingsHooks.onChange = [this] { refreshStatusItem(); };  // 14 (tapActive: see tapActive())
  settings_ = std::make_unique<settings::SettingsController>(
      deps_.prefs.store(), deps_.loginItems, deps_.appearance, deps_.alerts, std::move(settingsHooks));
  // 13: the show-settings request of a second launch arrives through `handOver`, which now opens
  // Settings instead of the consent window.
  lastTrusted_ = deps_.tap.isTrusted();  // 15
  // 16: the window presenter watches its windows closing; activation comes in through
  // applicationDidBecomeActive.
  // 17: openRules / openStats are the delegate's actions below.
  // 18: `changed` is the process-wide change hook.
  if (hooks_.startUndo) {  // 19
    hooks_.startUndo(guardian_);
  } else {
    missing("undo quit");
  }
  guardian_->onQuitBlocked = weakly([this] {  // 20
    if (hooks_.updateMenuCounter) hooks_.updateMenuCounter();
    if (hooks_.updateNudgeCheck) hooks_.updateNudgeCheck();
  });
  if (hooks_.setUpStatusItem) {  // 21
    hooks_.setUpStatusItem();
  } else {
    missing("status item");
  }
  versionBookkeeping();  // 22
  // 23: permission and first window.
  if (lastTrusted_) {
    startGuard();
    if (loginLaunch_) {
      startPoll();
      return;
    }
  } else if (hooks_.promptForTrust) {
    hooks_.promptForTrust();
  }
  openSettings();
  startPoll();
}

void AppDelegate::startNetworkMonitor() {
  platform::NetworkStatus& status = deps_.networkStatus;
  platform::SerialQueue& queue = deps_.loop.serialQueue("tarry.netstatus");
  // NOTE: the handler only writes the shared status, on its own queue; the status outlives it.
  deps_.networkMonitor.start([&status, &queue](const platform::NetworkPath& path) {
    queue.async([&status, path] { status.set(path); });
  });
}

void AppDelegate::fetchRemoteConfig() {
  platform::MainLoop& loop = deps_.loop;
  auto done = weakly([this] { remoteConfigDone(); });
  // The completion runs on the networking thread: hand it to the main loop.
  deps_.remoteConfig.fetch([&loop, done = std::move(done)](bool /*applied*/) { loop.dispatchMain(done); });
}

void AppDelegate::remoteConfigDone() {
  settings::showAnnouncement(deps_.tunables, deps_.prefs, deps_.hud, deps_.workspace.ownIcon());
  armPing();
}

void AppDelegate::armPing() {
  pingTimer_ = deps_.loop.every(deps_.tunables.real(T::pingMinutes) * 60, weakly([this] { ping(); }));
}

void AppDelegate::ping() {
  deps_.telemetry.send("ping");
  if (hooks_.logUploaderTurn) hooks_.logUploaderTurn(false);
  automaticUpdateCheck();
  fetchRemoteConfig();
}

void AppDelegate::automaticUpdateCheck() {
  if (!deps_.prefs.autoUpdate() || deps_.tunables.flag(T::updateChecksPaused) || autoCheckDone_) return;
  autoCheckDone_ = true;
  deps_.counters.add("update.auto");
  if (hooks_.automaticUpdateCheck) {
    hooks_.automaticUpdateCheck();
  } else {
    missing("automatic update check");
  }
}

void AppDelegate::versionBookkeeping() {
  platform::DefaultsStore& store = deps_.prefs.store();
  const auto stored = store.get("lastVersion");
  store.set("lastVersion", deps_.version);
  if (!stored || !stored->is_string()) return;
  const auto previous = stored->get<std::string>();
  if (previous == deps_.version) return;
  previousVersion_ = previous;
  deps_.counters.add("updated");
  deps_.log.log("updated from " + previous + " to " + deps_.version);
  if (!deps_.tunables.flag(T::updatedBannerPaused)) {
    deps_.hud.flash("Tarry updated to " + deps_.version, deps_.workspace.ownIcon(),
                    deps_.tunables.real(T::updatedBannerSec));
  }
}

// MARK: - Guard and poll

bool AppDelegate::tapActive() const { return guardian_->state().tapInstalled; }

void AppDelegate::startGuard() {
  if (guardian_->installTap()) {
    lastTapError_.clear();
    deps_.log.log("keyboard guard on");
    return;
  }
  // Say why on stderr once per reason, not on every tick; the guard itself writes the reason to
  // the event log, also once per reason.
  const std::string why = deps_.tap.lastError();
  if (why == lastTapError_) return;
  lastTapError_ = why;
  const std::string line = "keyboard guard off: " + (why.empty() ? std::string("no keyboard access") : why);
  if (hooks_.systemLog) hooks_.systemLog(line);
}

void AppDelegate::stopGuard() {
  guardian_->removeTap();
  const std::string why = deps_.tap.lastError();
  deps_.log.log("keyboard guard off: " +
                (why.empty() ? std::string("the display is no longer reachable") : why));
}

void AppDelegate::startPoll() {
  poll_.cancel();
  const double steady = deps_.tunables.real(T::pollSteadySec);
  const bool useSteady = tapActive() && lastTrusted_ && !settingsWindowVisible();
  pollInterval_ = useSteady ? steady : deps_.tunables.real(T::permissionPollSec);
  poll_ = deps_.loop.after(pollInterval_, weakly([this] {
                             pollTick();
                             startPoll();
                           }),
                           useSteady ? steady / 3 : kFastPollTolerance);
}

void AppDelegate::pollTick() {
  const bool trusted = deps_.tap.isTrusted();
  const bool hadTap = tapActive();
  if (!hadTap) {
    if (trusted) startGuard();
  } else if (!trusted) {
    stopGuard();
  }
  // A tap the system disabled is re-enabled by the guard itself when it hears of it.
  const bool hasTap = tapActive();
  if (hasTap) guardian_->checkProblem();

  const double now = deps_.loop.uptime();
  const double sinceBump = now - lastRunBump_;
  if (sinceBump >= deps_.tunables.real(T::runSecondsBumpEverySec)) {
    deps_.counters.add("runSeconds", static_cast<std::int64_t>(std::floor(sinceBump)));
    lastRunBump_ = now;
  }
  if (trusted != lastTrusted_) deps_.counters.add(trusted ? "axGranted" : "axLost");
  if (trusted != lastTrusted_ || hadTap != hasTap) {
    lastTrusted_ = trusted;
    deps_.log.log(std::string("keyboard access trusted=") + (trusted ? "true" : "false") +
                  " grabs=" + (hasTap ? "true" : "false"));
    refreshSettingsWindow();
    refreshStatusItem();
  }
  if (paused() != lastPaused_) refreshStatusItem();
  deps_.counters.dayTick();
  if (hooks_.updateMenuCounter) hooks_.updateMenuCounter();
}

// MARK: - Pause

bool AppDelegate::paused() const { return deps_.loop.now() < deps_.prefs.pauseUntil(); }

void AppDelegate::pauseFor(int minutes) {
  deps_.counters.add("pause");
  const double now = deps_.loop.now();
  const double until = minutes != 0 ? now + minutes * 60.0 : nextSixAM(deps_.loop, now);
  deps_.prefs.setDouble("pauseUntil", until);
  deps_.log.log("paused for " + std::to_string(minutes) + " min");
  refreshSettingsWindow();
  refreshStatusItem();
}

void AppDelegate::resumeNow() {
  deps_.prefs.setDouble("pauseUntil", 0);
  deps_.log.log("resumed");
  refreshSettingsWindow();
  refreshStatusItem();
}

// MARK: - Windows and status item

void AppDelegate::refreshStatusItem() {
  lastPaused_ = paused();
  if (hooks_.refreshStatusItem) hooks_.refreshStatusItem(lastPaused_);
}

void AppDelegate::refreshSettingsWindow() {
  if (hooks_.refreshSettingsWindow) hooks_.refreshSettingsWindow();
}

bool AppDelegate::settingsWindowVisible() const {
  return hooks_.settingsWindowVisible && hooks_.settingsWindowVisible();
}

void AppDelegate::bringForward() {
  presenter_.lastOwnActivation = deps_.loop.uptime();
  if (hooks_.bringForward) hooks_.bringForward();
}

void AppDelegate::changed() {
  refreshSettingsWindow();
  refreshStatusItem();
  if (hooks_.rescheduleRamSaver) hooks_.rescheduleRamSaver();
}

void AppDelegate::openSettings() {
  deps_.counters.add("open.settings");
  refreshSettingsWindow();
  bringForward();
  if (hooks_.showSettingsWindow) {
    hooks_.showSettingsWindow();
  } else {
    missing("settings window");
  }
}

void AppDelegate::openStats() {
  deps_.counters.add("open.stats");
  if (hooks_.showStatsWindow) {
    hooks_.showStatsWindow();
  } else {
    missing("statistics window");
  }
}

void AppDelegate::openRules() {
  if (hooks_.showRulesWindow) {
    hooks_.showRulesWindow();
  } else {
    missing("app rules window");
  }
}

void AppDelegate::openAbout() {
  if (hooks_.showAboutWindow) {
    hooks_.showAboutWindow();
  } else {
    missing("about window");
  }
}

// MARK: - Reopen, hand-over, terminate

bool AppDelegate::applicationShouldHandleReopen() {
  if (!settings_) {
    bringForward();
    consent_.show();
    return true;
  }
  // "reopened" is the Recently Quit list's event; launching the program again while it runs is this one.
  deps_.telemetry.send("launchedAgain");
  const double now = deps_.loop.uptime();
  const bool modal = hooks_.modalWindowUp && hooks_.modalWindowUp();
  if (!modal && now >= presenter_.ignoreReopenUntil &&
      now - presenter_.lastOwnActivation > deps_.tunables.real(T::reopenIgnoreSec)) {
    openSettings();
  }
  return true;
}

void AppDelegate::applicationDidBecomeActive() {
  if (settings_) refreshSettingsWindow();
}

std::string AppDelegate::handOver(const std::string& message) {
  std::istringstream in(message);
  std::string verb;
  in >> verb;
  if (verb == "show-settings") {
    activationToken_.clear();
    in >> activationToken_;
    deps_.log.log("show settings requested by a second launch");
    applicationShouldHandleReopen();
    return "ok";
  }
  if (!settings_) return "error: Tarry is waiting for consent";
  // The answer waits until the change is on disk as well as in force, so that whoever asked can
  // read it back at once (`tarry defaults read pauseUntil`).
  if (verb == "pause") {
    long minutes = -1;
    if (!(in >> minutes) || minutes < 0 || minutes > 24 * 60)
      return "error: pause needs minutes from 0 to 1440";
    pauseFor(static_cast<int>(minutes));
    deps_.prefs.store().flush();
    return "ok";
  }
  if (verb == "resume") {
    resumeNow();
    deps_.prefs.store().flush();
    return "ok";
  }
  return "error: unknown request " + verb;
}

void AppDelegate::applicationWillTerminate() {
  if (terminated_) return;
  terminated_ = true;
  poll_.cancel();
  pingTimer_.cancel();
  updateCheckTimer_.cancel();
  deps_.log.log("terminate");
  if (deps_.telemetry.send("quit")) deps_.telemetry.waitForSends(deps_.tunables.real(T::telemetryWaitSec));
  if (hooks_.logUploaderTurn) hooks_.logUploaderTurn(true);
}

}  // namespace tarry::app
