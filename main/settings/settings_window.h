#pragma once

#include "platform/settings_view.h"
#include "settings/settings_controller.h"

#include <functional>
#include <memory>
#include <string>

namespace tarry::settings {

/// What the Settings window asks of the rest of the program. Every member may be left empty.
struct SettingsWindowHooks {
  /// The keyboard guard has its grabs in place.
  std::function<bool()> tapActive;
  /// Why it has not, in a few words.
  std::function<std::string()> tapProblem;
  /// Why the guard, with its grabs in place, cannot work now ("" while it works).
  std::function<std::string()> guardProblem;
  /// How the guard gets the keys on this desktop ("X11 key grabs", "Tarry's GNOME Shell
  /// extension"), in a few words; may be left empty.
  std::function<std::string()> guardRoute;
  std::function<void()> openRules;
  std::function<void()> openStats;
  /// "Check Now" of the update section.
  std::function<void()> checkNow;
  /// One line to the application log.
  std::function<void(const std::string&)> log;
};

/// The window's fixed texts: every label and every pop-up's items.
[[nodiscard]] platform::SettingsTexts settingsTexts();
/// The keyboard guard's line and what to do when it is off; a working guard names its `route`.
[[nodiscard]] platform::GuardStatus guardStatus(bool working, const std::string& problem,
                                                const std::string& route = {});
/// "2 s", "2.5 s".
[[nodiscard]] std::string holdValueText(double seconds);

/// Presents the Settings window over `SettingsController`: every control commits through its
/// single `changed` path (the slider through `holdSliderMoved`), and the window re-reads the store
/// when it opens, when the user comes back to it and after every change.
class SettingsWindow final : public platform::SettingsActions {
 public:
  SettingsWindow(std::unique_ptr<platform::SettingsView> view, SettingsController& controller,
                 SettingsWindowHooks hooks);
  ~SettingsWindow() override;
  SettingsWindow(const SettingsWindow&) = delete;
  SettingsWindow& operator=(const SettingsWindow&) = delete;

  /// Re-reads every control and the guard's state (the controller's `refreshWindow` hook).
  void refresh();
  /// Refreshes and brings the window forward.
  void show();
  [[nodiscard]] bool isVisible() const { return view_->isVisible(); }

  void changed(const platform::SettingsControls& controls) override;
  void holdSliderMoved(double seconds, const platform::SettingsControls& controls) override;
  void pressed(const std::string& button) override;
  void activated() override;

 private:
  std::unique_ptr<platform::SettingsView> view_;
  SettingsController& controller_;
  SettingsWindowHooks hooks_;
};

}  // namespace tarry::settings
