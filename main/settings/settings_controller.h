#pragma once

#include "platform/alerts.h"
#include "platform/appearance.h"
#include "platform/defaults_store.h"
#include "platform/login_items.h"
#include "platform/settings_view.h"
#include "settings/preferences.h"

#include <array>
#include <functional>
#include <string>
#include <string_view>

namespace tarry::settings {

/// What the Settings window's controls show (defined with the window's contract).
using SettingsControls = platform::SettingsControls;

/// What the Settings logic asks of the rest of the program. Every member may be left empty.
struct SettingsHooks {
  /// One line to the application log.
  std::function<void(const std::string&)> log;
  /// One line to the system log (the journal, stderr).
  std::function<void(const std::string&)> systemLog;
  /// Sends a usage event by name ("settingsChanged", "reset").
  std::function<void(const std::string&)> sendEvent;
  /// Has RAM Saver rebuild its timer after its settings changed.
  std::function<void()> rescheduleRamSaver;
  /// Re-reads every control of the Settings window from the store.
  std::function<void()> refreshWindow;
  /// The window's change callback: the menu and status item follow the new settings.
  std::function<void()> onChange;
};

/// The 22 keys a reset removes, in the order they are removed. Per-app rules, per-app RAM Saver
/// hours, statistics and bookkeeping keys are not among them on purpose.
inline constexpr std::array<std::string_view, 22> kResetKeys = {
    "busyGuard",   "undoQuit",     "ramSaverHours", "onlyListedApps", "showMenuBar", "enabled",
    "holdSeconds", "showHUD",      "playSound",     "style",          "pauseUntil",  "menuCounter",
    "appearance",  "closeHold",    "logoutHold",    "unsavedWarn",    "workHours",   "workFrom",
    "workTo",      "workWeekdays", "micStrict",     "autoUpdate"};

/// Forces the stored look: 0 (or less) light, 1 dark, anything above follows the system.
void applyAppearance(const Preferences& prefs, platform::Appearance& appearance);

/// At launch: until the launch-at-login default has been applied once, registers the program as a
/// login item and, only when that worked, remembers it, so a failure is retried next launch.
/// Returns true when it registered now.
bool applyLoginItemDefault(Preferences& prefs, platform::LoginItems& loginItems);

/// The logic behind the Settings window: its single commit path, the hold slider and the reset.
class SettingsController final {
 public:
  SettingsController(platform::DefaultsStore& store, platform::LoginItems& loginItems,
                     platform::Appearance& appearance, platform::Alerts& alerts, SettingsHooks hooks);
  SettingsController(const SettingsController&) = delete;
  SettingsController& operator=(const SettingsController&) = delete;

  /// The controls as the store and the login-item status say they should show.
  [[nodiscard]] SettingsControls controls() const;

  /// Commits every control of the window (any control but the slider calls this).
  void changed(const SettingsControls& controls);
  /// The hold slider moved to `value`: stores it rounded to half seconds within 0.5 … 7.0, then
  /// commits the other controls.
  void holdSliderMoved(double value, const SettingsControls& controls);
  /// "Reset Settings…": asks first; returns true when the settings were reset.
  bool resetToDefaults();

 private:
  void log(const std::string& line) const;
  void send(const std::string& event) const;

  Preferences prefs_;
  platform::LoginItems& loginItems_;
  platform::Appearance& appearance_;
  platform::Alerts& alerts_;
  SettingsHooks hooks_;
};

}  // namespace tarry::settings
