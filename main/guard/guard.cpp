#include "guard/guard.h"

#include "common/app_lists.h"
#include "common/counters.h"
#include "diagnostics/app_telemetry.h"
#include "diagnostics/log.h"
#include "settings/preferences.h"
#include "settings/tunables.h"

#include <algorithm>
#include <cmath>
#include <string_view>
#include <utility>

namespace tarry::guard {
namespace {

using platform::EventType;
using platform::KeyEvent;
using platform::RunningApp;
using platform::TapVerdict;
using settings::T;

constexpr std::uint64_t kModifierMask =
    platform::kFlagShift | platform::kFlagControl | platform::kFlagOption | platform::kFlagCommand;

constexpr std::string_view kDock = "com.apple.dock";
constexpr const char* kTapFailedMessage = "event tap creation failed (the keyboard grabs were refused)";
/// Whole milliseconds of a duration in seconds.
std::int64_t wholeMs(double seconds) { return std::llround(std::max(seconds, 0.0) * 1000); }

}  // namespace

std::string actionText(Combo combo, const std::string& appName) {
  switch (combo) {
    case Combo::quit:
      return "quit " + appName;
    case Combo::close:
      return "close this window";
    case Combo::logout:
      // NOTE: on Linux no app logs the session out on this combination; a completed hold sends it
      // to the focused app, which may close a window or quit (terminals, browsers).
      return "send it to " + appName;
  }
  return {};
}

std::string appLabel(const RunningApp& app) {
  if (app.bundleID.empty())
    return app.localizedName.empty() ? "process " + std::to_string(app.pid) : app.localizedName;
  if (app.localizedName.empty() || app.localizedName == app.bundleID) return app.bundleID;
  return app.localizedName + " (" + app.bundleID + ")";
}

Guard::Guard(GuardDeps deps) : hud(deps.hud), deps_(deps) {}

Guard::~Guard() {
  // Drop the token first: anything still queued for the guard sees it gone and does nothing.
  alive_.reset();
}

// MARK: - Tap

bool Guard::installTap() {
  if (tap) return true;
  if (!deps_.events.isTrusted()) {
    // Not logged: the permission poll asks again and again; the state tells the menu why.
    tapError_ = deps_.events.lastError();
    if (tapError_.empty()) tapError_ = "not allowed to watch the keyboard";
    return false;
  }
  std::weak_ptr<char> alive = alive_;
  tap = deps_.events.create([alive, this](const KeyEvent& event) {
    if (alive.expired()) return TapVerdict::pass;
    return handleEvent(event);
  });
  if (!tap) {
    if (!tapFailed) {
      tapFailed = true;
      deps_.counters.add("tapFail");
    }
    if (!loggedTapFailure_) {
      loggedTapFailure_ = true;
      deps_.log.log(kTapFailedMessage);
    }
    if (!askedListen && !deps_.events.listenAccessGranted()) {
      askedListen = true;
      deps_.events.requestListenAccess();
    }
    tapError_ = deps_.events.lastError();
    if (tapError_.empty()) tapError_ = "the keyboard cannot be watched";
    checkProblem();
    return false;
  }
  tapFailed = false;
  tapError_.clear();
  tap->enable();
  checkProblem();
  return true;
}

void Guard::removeTap() {
  stopHold();
  clearPending();
  tap.reset();
}

std::string Guard::currentProblem() const {
  if (!tap) return tapError_;
  if (std::string p = deps_.events.problem(); !p.empty()) return p;
  return deps_.workspace.problem();
}

void Guard::checkProblem() {
  const std::string problem = currentProblem();
  const std::string line = problem.empty()
                               ? std::string()
                               : (tap ? "keyboard guard not working: " : "keyboard guard off: ") + problem;
  if (line == loggedProblem_) return;
  if (!line.empty()) {
    deps_.log.log(line);
  } else if (loggedProblem_.starts_with("keyboard guard not working")) {
    deps_.log.log("keyboard guard working again");
  }
  loggedProblem_ = line;
}

TapVerdict Guard::handleEvent(const KeyEvent& event) {
  switch (event.type) {
    case EventType::tapDisabledByTimeout:
    case EventType::tapDisabledByUserInput:
      deps_.counters.add("tapDisabled");
      stopHold();
      if (tap) tap->enable();
      return TapVerdict::pass;

    case EventType::keyUp:
      if (event.keyCode == swallowedCode) swallowedCode = -1;
      if (event.keyCode != holdCode) return TapVerdict::pass;
      cancelHold();
      return TapVerdict::pass;

    case EventType::flagsChanged:
      if ((event.flags & platform::kFlagCommand) == 0) {
        cancelHold();
      } else if (armed && combo == Combo::logout && (event.flags & platform::kFlagShift) == 0) {
        cancelHold();
      }
      return TapVerdict::pass;

    case EventType::keyDown:
      break;

    case EventType::other:
      return TapVerdict::pass;
  }

  if (event.userData == platform::kOwnEventMarker) return TapVerdict::pass;

  const std::int64_t keyCode = event.keyCode;
  const bool repeat = event.autorepeat;
  if (!repeat) {
    swallowedCode = -1;
  } else if (keyCode == swallowedCode) {
    return TapVerdict::swallow;
  }

  if (!repeat && (event.flags & kModifierMask) == (platform::kFlagOption | platform::kFlagCommand)) {
    // The character the key types with every modifier cleared; a layout (or a failed event copy)
    // that gives none falls back to the physical Z key.
    const bool hotKey = event.unmodifiedText && !event.unmodifiedText->empty() ? *event.unmodifiedText == u"z"
                                                                               : keyCode == platform::kKeyZ;
    if (hotKey && deps_.undo.canUndo()) {
      swallowedCode = keyCode;
      std::weak_ptr<char> alive = alive_;
      UndoHooks* undo = &deps_.undo;
      deps_.loop.dispatchMain([alive, undo] {
        if (!alive.expired()) undo->restoreLast();
      });
      return TapVerdict::swallow;
    }
  }

  const auto guarded = classify(event);
  // NOTE: with no hold armed, a key that is not a guarded combination passes untouched whether or
  // not protection is on; deciding that first keeps the two preference reads off the path of every
  // ordinary key press.
  if (!guarded && !armed) return TapVerdict::pass;

  if (!deps_.prefs.enabled() || deps_.loop.now() < deps_.prefs.pauseUntil()) {
    cancelHold();
    return TapVerdict::pass;
  }
  if (!guarded || !deps_.policy.isGuarded(*guarded)) return TapVerdict::pass;

  if (evaluate(*guarded, event)) {
    swallowedCode = keyCode;
    return TapVerdict::swallow;
  }
  return TapVerdict::pass;
}

std::optional<Combo> Guard::classify(const KeyEvent& event) {
  constexpr std::uint64_t kNonShift = platform::kFlagControl | platform::kFlagOption | platform::kFlagCommand;
  if ((event.flags & kNonShift) != platform::kFlagCommand) return std::nullopt;
  const bool shift = (event.flags & platform::kFlagShift) != 0;

  char character = 0;
  if (event.text.size() == 1 && event.text[0] >= 33 && event.text[0] <= 126) {
    character = static_cast<char>(event.text[0]);
    if (character >= 'A' && character <= 'Z') character = static_cast<char>(character - 'A' + 'a');
  }
  if (character != 0) {
    if (character == 'q') return shift ? Combo::logout : Combo::quit;
    if (character == 'w' && !shift) return Combo::close;
    return std::nullopt;
  }
  if (event.keyCode == platform::kKeyQ) return shift ? Combo::logout : Combo::quit;
  if (event.keyCode == platform::kKeyW && !shift) return Combo::close;
  return std::nullopt;
}

// MARK: - Deciding

bool Guard::isDock(const std::string& bundleID) const {
  return bundleID == kDock ||
         common::listed(deps_.workspace.identifierEquivalents(platform::IdentifierSet::dock), bundleID);
}

bool Guard::isNeverTerminate(const std::string& bundleID) const {
  return common::isFileManager(deps_.workspace, bundleID);
}

bool Guard::isNeverQuit(const std::string& bundleID) const {
  return common::isNeverQuit(deps_.workspace, deps_.tunables, bundleID);
}

bool Guard::evaluate(Combo c, const KeyEvent& event) {
  const auto front = deps_.workspace.frontmostApplication();
  if (!front) return false;
  const RunningApp& app = *front;
  if (app.pid == deps_.workspace.ownPid() && c == Combo::close) return false;
  if (c == Combo::quit && isDock(app.bundleID)) return true;

  std::string rule = deps_.prefs.appMode(app.bundleID);
  const bool neverQuit = c == Combo::quit && isNeverQuit(app.bundleID);
  if (rule.empty() && c == Combo::quit && deps_.prefs.onlyListedApps() && !neverQuit) rule = "instant";

  if (c == Combo::quit && rule == "instant") {
    deps_.counters.add("instant");
    return false;
  }

  const bool repeat = event.autorepeat;
  const std::string name = app.localizedName.empty() ? std::string("this app") : app.localizedName;
  if (!repeat) {
    deps_.telemetry.recordAppSeen(app.bundleID, "attempted");
    deps_.counters.add("press." + std::string(word(c)));
    deps_.counters.add("cat.attempt." + deps_.telemetry.category(app));
  }

  if (c == Combo::quit && (neverQuit || rule == "never")) {
    if (!repeat) {
      deps_.counters.add("protected");
      deps_.log.log(std::string(symbol(c)) + " refused: " + appLabel(app) + " is protected" +
                    (rule == "never" && !neverQuit ? " by its rule" : ""));
      if (!deps_.tunables.flag(T::protectedBannerPaused)) {
        hud.flash("🔒 " + name + " is protected", app.icon, deps_.tunables.real(T::protectedFlashSec));
      }
    }
    return true;
  }

  const bool pressTwice = deps_.prefs.pressTwice();
  if (!pressTwice && (armed || repeat)) return true;

  const HoldTime hold = deps_.policy.holdDuration(c, rule);
  lastMode = rule;
  lastCareful = hold.careful;
  const double duration = hold.seconds;

  if (!pressTwice) {
    if (!armed) beginHold(duration, c, app, event.keyCode);
    return true;
  }

  if (repeat) return true;
  const double now = deps_.loop.now();
  const double window = deps_.tunables.real(T::pressTwiceWindowSec);
  if (pendingPID == app.pid && pendingCombo == c && now - pendingAt < window) {
    clearPending();
    hud.hideNow();
    deps_.counters.add("twice.confirmed");
    deps_.counters.add("complete." + std::string(word(c)));
    perform(c, app, event.keyCode);
    return true;
  }
  if (pendingPID != 0) noteBlocked(pendingCombo, pendingApp_ ? &*pendingApp_ : nullptr);
  clearPending();
  pendingApp_ = app;
  pendingPID = app.pid;
  pendingCombo = c;
  pendingAt = now;
  deps_.policy.recordAttemptHour(c);
  deps_.counters.add("twice.first");
  hud.flash("Press " + std::string(symbol(c)) + " again to " + actionText(c, name), app.icon, window);
  std::weak_ptr<char> alive = alive_;
  pendingWork = deps_.loop.after(window, [alive, this, c] {
    if (alive.expired() || pendingPID == 0) return;
    pendingPID = 0;
    noteBlocked(c, pendingApp_ ? &*pendingApp_ : nullptr);
  });
  return true;
}

// MARK: - Holding

void Guard::beginHold(double duration, Combo c, const RunningApp& app, std::int64_t keyCode) {
  armed = true;
  combo = c;
  holdCode = keyCode;
  ++holdSerial;
  startTime = deps_.loop.uptime();
  holdDuration = duration;
  targetApp = app;
  holdReasons.clear();
  holdSnap.reset();

  deps_.policy.recordAttemptHour(c);
  if (lastCareful) {
    deps_.counters.add("careful");
    const std::string reason = deps_.policy.carefulReason();
    deps_.log.log("careful mode" + (reason.empty() ? std::string() : " (" + reason + ")") + ": " +
                  std::string(symbol(c)) + " held longer for " + appLabel(app));
  }
  if (c == Combo::quit && (lastMode == "short" || lastMode == "long")) deps_.counters.add("rule." + lastMode);

  activity = deps_.power.begin("Hold to confirm");

  if (deps_.prefs.showHUD()) {
    const std::string name =
        !app.localizedName.empty() ? app.localizedName : (c == Combo::logout ? "this app" : "app");
    // NOTE: the title has one line of about 28 characters; "Ctrl+Shift+Q" would push the name of
    // the app it goes to out of sight, and the user is pressing it anyway.
    hud.show(c == Combo::logout ? "Hold to " + actionText(c, name)
                                : "Hold " + std::string(symbol(c)) + " to " + actionText(c, name),
             app.icon, duration);
  }

  if (c == Combo::quit) startBackgroundChecks(app, holdSerial);

  std::weak_ptr<char> alive = alive_;
  ticker = deps_.loop.every(1.0 / deps_.tunables.real(T::holdTickHz), [alive, this] {
    if (!alive.expired()) tick();
  });
}

void Guard::startBackgroundChecks(const RunningApp& app, std::int64_t serial) {
  std::weak_ptr<char> alive = alive_;
  platform::MainLoop* loop = &deps_.loop;
  HoldPolicy* policy = &deps_.policy;

  // NOTE: the checks run off the main thread and touch no guard state: they only read the app and
  // hand their answer back to the main queue, where the serial decides whether it still matters.
  if (deps_.prefs.unsavedWarn()) {
    loop->background([alive, this, loop, policy, app, serial] {
      if (alive.expired() || !policy->hasUnsavedWork(app)) return;
      loop->dispatchMain([alive, this, serial] {
        if (alive.expired() || !armed || serial != holdSerial) return;
        deps_.counters.add("unsaved");
        deps_.telemetry.event("unsaved");
        extendHold(serial, deps_.tunables.real(T::unsavedMultiplier), {"Unsaved work"});
      });
    });
  }
  if (deps_.prefs.busyGuard()) {
    loop->background([alive, this, loop, policy, app, serial] {
      if (alive.expired()) return;
      auto reasons = policy->busyReasons(app);
      if (reasons.empty()) return;
      loop->dispatchMain([alive, this, serial, reasons = std::move(reasons)] {
        if (alive.expired() || !armed || serial != holdSerial) return;
        deps_.counters.add("busy");
        deps_.telemetry.event("busy");
        extendHold(serial, deps_.tunables.real(T::busyMultiplier), reasons);
      });
    });
  }
  if (deps_.prefs.undoQuit()) {
    UndoHooks* undo = &deps_.undo;
    loop->background([alive, this, loop, undo, app, serial] {
      if (alive.expired()) return;
      auto snap = undo->capture(app);
      loop->dispatchMain([alive, this, serial, snap = std::move(snap)] {
        if (alive.expired() || !armed || serial != holdSerial) return;
        holdSnap = snap;
      });
    });
  }
}

void Guard::extendHold(std::int64_t serial, double multiplier, const std::vector<std::string>& reasons) {
  if (!armed || serial != holdSerial) return;
  const double now = deps_.loop.uptime();
  const double filled = holdDuration > 0 ? (now - startTime) / holdDuration : 0;
  const double longer = std::min(multiplier * holdDuration, deps_.tunables.real(T::maxHoldSec));
  holdDuration = longer;
  startTime = now - filled * longer;
  std::string added;
  for (const auto& reason : reasons) {
    if (common::listed(holdReasons, reason)) continue;
    holdReasons.push_back(reason);
    added += (added.empty() ? "" : ", ") + reason;
  }
  if (!added.empty() && targetApp) {
    deps_.log.log("held longer for " + appLabel(*targetApp) + ": " + added);
  }
  if (deps_.prefs.showHUD()) hud.setReasons(holdReasons);
}

void Guard::tick() {
  if (!armed) return;
  const double elapsed = deps_.loop.uptime() - startTime;
  hud.update(elapsed, holdDuration);
  if (holdDuration <= 0 || elapsed / holdDuration >= deps_.tunables.real(T::finishThreshold)) finishHold();
}

void Guard::finishHold() {
  const auto app = targetApp;
  const Combo c = combo;
  stopHold();
  if (!app) return;
  deps_.counters.add("complete." + std::string(word(c)));
  deps_.counters.add("completeMs", wholeMs(holdDuration));
  if (c == Combo::close) {
    // The window to close belongs to the app the hold began on; never send Ctrl+W to another app.
    const auto front = deps_.workspace.frontmostApplication();
    if (!front || front->pid != app->pid) return;
  }
  perform(c, *app, holdCode);
}

void Guard::cancelHold() {
  if (!armed) return;
  const double e = deps_.loop.uptime() - startTime;
  holdSnap.reset();
  deps_.counters.add("cancelMs", wholeMs(e));
  const char* bucket = e < 0.25  ? "cancel.lt250ms"
                       : e < 0.5 ? "cancel.lt500ms"
                       : e < 1   ? "cancel.lt1s"
                       : e < 2   ? "cancel.lt2s"
                                 : "cancel.ge2s";
  deps_.counters.add(bucket);
  stopHold();
  noteBlocked(combo, targetApp ? &*targetApp : nullptr);
}

void Guard::stopHold() {
  if (!armed) return;
  ticker.cancel();
  armed = false;
  activity.reset();
  hud.hideNow();
}

void Guard::clearPending() {
  pendingWork.cancel();
  pendingPID = 0;
  pendingApp_.reset();
}

// MARK: - Acting

void Guard::perform(Combo c, const RunningApp& app, std::int64_t keyCode) {
  if (c == Combo::quit) {
    quitApp(app);
    return;
  }
  deps_.log.log(std::string(symbol(c)) + " confirmed: sent to " + appLabel(app));
  if (deps_.prefs.playSound()) deps_.sound.play("Pop");
  if (keyCode < 0 || keyCode > 65535) return;
  KeyEvent key;
  key.keyCode = keyCode;
  key.flags = c == Combo::close ? platform::kFlagCommand : platform::kFlagCommand | platform::kFlagShift;
  key.userData = platform::kOwnEventMarker;
  key.type = EventType::keyDown;
  deps_.events.post(key);
  key.type = EventType::keyUp;
  deps_.events.post(key);
}

void Guard::quitApp(const RunningApp& app) {
  if (app.bundleID.empty() || isNeverTerminate(app.bundleID)) return;
  deps_.counters.add("quit");
  deps_.telemetry.recordAppSeen(app.bundleID, "quit");
  deps_.counters.add("cat.quit." + deps_.telemetry.category(app));
  deps_.log.log("quit confirmed: " + appLabel(app));

  std::optional<common::Snap> snap;
  if (deps_.prefs.undoQuit()) {
    if (holdSnap && holdSnap->pid == app.pid) {
      snap = std::move(holdSnap);
    } else {
      snap = deps_.undo.capture(app);
    }
  }
  holdSnap.reset();

  if (deps_.prefs.playSound()) deps_.sound.play("Pop");
  (void)deps_.workspace.terminate(app);
  if (snap) deps_.undo.remember(app, std::move(*snap), hud);
}

void Guard::noteBlocked(Combo c, const RunningApp* app) {
  switch (c) {
    case Combo::close:
      deps_.counters.add("wblocked");
      return;
    case Combo::logout:
      deps_.counters.add("lblocked");
      return;
    case Combo::quit:
      break;
  }
  deps_.counters.add("saved");
  if (onQuitBlocked) onQuitBlocked();
  const std::int64_t total = deps_.counters.allTime("saved");
  deps_.log.log("accidental quit blocked total=" + std::to_string(total) +
                (app ? ": " + appLabel(*app) : ""));
  const std::int64_t step = deps_.tunables.integer(T::milestoneStep);
  const bool milestone = total == deps_.tunables.integer(T::milestoneFirst) ||
                         total == deps_.tunables.integer(T::milestoneSecond) ||
                         (step > 0 && total >= step && total % step == 0);
  if (milestone && !deps_.tunables.flag(T::milestoneBannerPaused)) {
    hud.flash("🛡 " + std::to_string(total) + " accidental quits blocked", deps_.workspace.ownIcon(),
              deps_.tunables.real(T::milestoneBannerSec));
  }
}

GuardState Guard::state() const {
  GuardState s;
  s.tapInstalled = tap != nullptr;
  s.armed = armed;
  s.combo = combo;
  s.holdDuration = holdDuration;
  s.elapsed = armed ? deps_.loop.uptime() - startTime : 0;
  s.holdSerial = holdSerial;
  s.swallowedCode = swallowedCode;
  s.pendingPID = pendingPID;
  s.lastCareful = lastCareful;
  s.lastMode = lastMode;
  s.holdReasons = holdReasons;
  s.hasHoldSnap = holdSnap.has_value();
  s.problem = currentProblem();
  return s;
}

}  // namespace tarry::guard
