#pragma once

#include <map>
#include <string>
#include <vector>

namespace tarry::platform {

/// What the Settings window's controls show: checkboxes as Booleans, pop-ups as their selected
/// index, the hold slider as its value in seconds.
struct SettingsControls {
  bool enabled = true;
  bool showMenuBar = true;
  bool showHUD = true;
  bool playSound = true;
  bool menuCounter = true;
  int styleIndex = 0;
  bool unsavedWarn = true;
  bool workHours = false;
  bool workWeekdays = true;
  bool micStrict = false;
  int workFromIndex = 9;
  int workToIndex = 17;
  bool busyGuard = true;
  bool undoQuit = true;
  int ramSaverIndex = 0;
  int closeHoldIndex = 0;
  int logoutHoldIndex = 1;
  bool autoUpdate = true;
  int appearanceIndex = 0;
  bool launchAtLogin = false;
  double holdSeconds = 2.0;

  friend bool operator==(const SettingsControls&, const SettingsControls&) = default;
};

/// The fixed texts of the Settings window. Labels and pop-up items are keyed by the control's
/// name, which is the field name in `SettingsControls` ("enabled", "styleIndex", …), or the name
/// of a button or section ("rules", "stats", "checkNow", "reset", "section.general", …).
struct SettingsTexts {
  std::string title;
  std::map<std::string, std::string> labels;
  std::map<std::string, std::vector<std::string>> items;
  /// Slider range and step, seconds.
  double holdMin = 0.5;
  double holdMax = 7.0;
  double holdStep = 0.5;
};

/// The keyboard guard's state as the window shows it.
struct GuardStatus {
  bool working = false;
  /// One line: "Keyboard guard on" / "Keyboard guard off: …".
  std::string text;
  /// What to do about it; empty while it works.
  std::string help;

  friend bool operator==(const GuardStatus&, const GuardStatus&) = default;
};

/// What the Settings window reports; the presenter implements it.
class SettingsActions {
 public:
  SettingsActions() = default;
  SettingsActions(const SettingsActions&) = delete;
  SettingsActions& operator=(const SettingsActions&) = delete;
  virtual ~SettingsActions() = default;

  /// A control other than the slider changed; `controls` is what every control shows now.
  virtual void changed(const SettingsControls& controls) = 0;
  /// The hold slider moved to `seconds`.
  virtual void holdSliderMoved(double seconds, const SettingsControls& controls) = 0;
  /// A button: "reset", "rules", "stats", "checkNow".
  virtual void pressed(const std::string& button) = 0;
  /// The window became the active one (the user came back to it).
  virtual void activated() = 0;
};

/// The Settings window: draws what it is told.
class SettingsView {
 public:
  SettingsView() = default;
  SettingsView(const SettingsView&) = delete;
  SettingsView& operator=(const SettingsView&) = delete;
  virtual ~SettingsView() = default;

  virtual void setActions(SettingsActions* actions) = 0;
  virtual void setTexts(const SettingsTexts& texts) = 0;
  /// Sets every control without reporting it as a change; `holdText` labels the slider's value.
  virtual void setControls(const SettingsControls& controls, const std::string& holdText) = 0;
  virtual void setGuardStatus(const GuardStatus& status) = 0;
  /// Shows the window (centred when it was not on screen) and brings it forward.
  virtual void present() = 0;
  [[nodiscard]] virtual bool isVisible() const = 0;
};

}  // namespace tarry::platform
