#include "settings/settings_snapshot.h"

namespace tarry::settings {

nlohmann::json settingsSnapshot(const Preferences& prefs, platform::LoginItems& loginItems,
                                const SnapshotFacts& facts) {
  nlohmann::json s = nlohmann::json::object();
  s["enabled"] = prefs.enabled();
  s["holdSeconds"] = prefs.holdSeconds();
  s["style"] = prefs.pressTwice() ? 1 : 0;
  s["progressBar"] = prefs.showHUD();
  s["sound"] = prefs.playSound();
  s["menuBar"] = prefs.showMenuBar();
  s["menuCounter"] = prefs.menuCounter();
  s["appearance"] = prefs.appearance();
  s["unsavedWarn"] = prefs.unsavedWarn();
  s["carefulMode"] = prefs.workHours();
  s["micStrict"] = prefs.micStrict();
  s["onlyListedApps"] = prefs.onlyListedApps();
  s["closeHold"] = prefs.closeHold();
  s["logoutHold"] = prefs.logoutHold();
  s["appRules"] = prefs.appModes().size();
  s["launchAtLogin"] = loginItems.enabled();
  s["accessibility"] = facts.accessibility;
  s["autoUpdate"] = prefs.autoUpdate();
  s["loginLaunch"] = facts.loginLaunch;
  s["updatedFrom"] = facts.updatedFrom;
  s["undoQuit"] = prefs.undoQuit();
  s["busyGuard"] = prefs.busyGuard();
  s["ramSaverHours"] = prefs.ramSaverHours();
  return s;
}

}  // namespace tarry::settings
