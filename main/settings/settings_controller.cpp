#include "settings/settings_controller.h"

#include "settings/choice_lists.h"

#include <utility>

namespace tarry::settings {
namespace {

void call(const std::function<void()>& hook) {
  if (hook) hook();
}

}  // namespace

void applyAppearance(const Preferences& prefs, platform::Appearance& appearance) {
  const int stored = prefs.appearance();  // already clamped to 0 … 2
  appearance.apply(stored <= 0   ? platform::AppearanceMode::light
                   : stored == 1 ? platform::AppearanceMode::dark
                                 : platform::AppearanceMode::system);
}

bool applyLoginItemDefault(Preferences& prefs, platform::LoginItems& loginItems) {
  if (prefs.loginDefaultDone()) return false;
  std::string error;
  if (!loginItems.registerItem(error)) return false;
  prefs.setBool("loginDefaultDone", true);
  return true;
}

SettingsController::SettingsController(platform::DefaultsStore& store, platform::LoginItems& loginItems,
                                       platform::Appearance& appearance, platform::Alerts& alerts,
                                       SettingsHooks hooks)
    : prefs_(store),
      loginItems_(loginItems),
      appearance_(appearance),
      alerts_(alerts),
      hooks_(std::move(hooks)) {}

SettingsControls SettingsController::controls() const {
  SettingsControls c;
  c.enabled = prefs_.enabled();
  c.showMenuBar = prefs_.showMenuBar();
  c.showHUD = prefs_.showHUD();
  c.playSound = prefs_.playSound();
  c.menuCounter = prefs_.menuCounter();
  c.styleIndex = prefs_.pressTwice() ? 1 : 0;
  c.unsavedWarn = prefs_.unsavedWarn();
  c.workHours = prefs_.workHours();
  c.workWeekdays = prefs_.workWeekdays();
  c.micStrict = prefs_.micStrict();
  c.workFromIndex = prefs_.workFrom();
  c.workToIndex = prefs_.workTo();
  c.busyGuard = prefs_.busyGuard();
  c.undoQuit = prefs_.undoQuit();
  c.ramSaverIndex = choiceIndex(kRamSaverChoices, prefs_.ramSaverHours());
  c.closeHoldIndex = choiceIndex(kCloseHoldChoices, prefs_.closeHold());
  c.logoutHoldIndex = choiceIndex(kLogoutHoldChoices, prefs_.logoutHold());
  c.autoUpdate = prefs_.autoUpdate();
  c.appearanceIndex = prefs_.appearance();
  c.launchAtLogin = loginItems_.enabled();
  c.holdSeconds = prefs_.holdSeconds();
  return c;
}

void SettingsController::changed(const SettingsControls& c) {
  log("settings changed");
  send("settingsChanged");

  prefs_.setBool("enabled", c.enabled);
  prefs_.setBool("showMenuBar", c.showMenuBar);
  prefs_.setBool("showHUD", c.showHUD);
  prefs_.setBool("playSound", c.playSound);
  prefs_.setBool("menuCounter", c.menuCounter);
  prefs_.setInteger("style", c.styleIndex);
  prefs_.setBool("unsavedWarn", c.unsavedWarn);

  prefs_.setBool("workHours", c.workHours);
  prefs_.setBool("workWeekdays", c.workWeekdays);
  prefs_.setBool("micStrict", c.micStrict);
  prefs_.setInteger("workFrom", hourForIndex(c.workFromIndex));
  prefs_.setInteger("workTo", hourForIndex(c.workToIndex));
  prefs_.setBool("busyGuard", c.busyGuard);
  prefs_.setBool("undoQuit", c.undoQuit);
  prefs_.setDouble("ramSaverHours", choiceValue(kRamSaverChoices, c.ramSaverIndex));
  call(hooks_.rescheduleRamSaver);

  prefs_.setDouble("closeHold", choiceValue(kCloseHoldChoices, c.closeHoldIndex));
  prefs_.setDouble("logoutHold", choiceValue(kLogoutHoldChoices, c.logoutHoldIndex));

  prefs_.setBool("autoUpdate", c.autoUpdate);

  // NOTE: the look is applied only when the choice really changed, so that a change of any other
  // control does not make the window flicker.
  if (c.appearanceIndex != prefs_.appearance()) {
    prefs_.setInteger("appearance", c.appearanceIndex);
    applyAppearance(prefs_, appearance_);
  }

  if (c.launchAtLogin != loginItems_.enabled()) {
    prefs_.setBool("loginDefaultDone", true);  // the user has chosen; launch never overrides it
    std::string error;
    const bool ok = c.launchAtLogin ? loginItems_.registerItem(error) : loginItems_.unregisterItem(error);
    if (!ok) {
      const std::string line = "login item error: " + error;
      if (hooks_.systemLog) hooks_.systemLog(line);
      log(line);
    }
  }

  call(hooks_.refreshWindow);
  call(hooks_.onChange);
}

void SettingsController::holdSliderMoved(double value, const SettingsControls& controls) {
  prefs_.setHoldSeconds(value);
  changed(controls);
}

bool SettingsController::resetToDefaults() {
  const platform::AlertSpec alert{
      "Reset all settings to defaults?", "Statistics and app rules are kept.", {"No", "Yes, Reset"}};
  if (alerts_.runModal(alert) != 1) return false;

  send("reset");
  for (const std::string_view key : kResetKeys) prefs_.store().remove(key);

  std::string ignored;  // launching at login is the default again; a failure changes nothing
  loginItems_.registerItem(ignored);

  applyAppearance(prefs_, appearance_);
  call(hooks_.refreshWindow);
  call(hooks_.onChange);
  return true;
}

void SettingsController::log(const std::string& line) const {
  if (hooks_.log) hooks_.log(line);
}

void SettingsController::send(const std::string& event) const {
  if (hooks_.sendEvent) hooks_.sendEvent(event);
}

}  // namespace tarry::settings
