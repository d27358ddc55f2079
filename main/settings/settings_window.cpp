#include "settings/settings_window.h"

#include "guard/combo.h"
#include "settings/choice_lists.h"

#include <cmath>
#include <cstdio>
#include <utility>

namespace tarry::settings {
namespace {

template <std::size_t N>
std::vector<std::string> titlesOf(const std::array<PopUpChoice, N>& choices) {
  std::vector<std::string> titles;
  for (const PopUpChoice& c : choices) titles.emplace_back(c.title);
  return titles;
}

}  // namespace

platform::SettingsTexts settingsTexts() {
  const std::string quit(guard::keysText(guard::Shortcut::quit));
  const std::string close(guard::keysText(guard::Shortcut::close));
  const std::string logout(guard::keysText(guard::Shortcut::logout));
  const std::string undo(guard::keysText(guard::Shortcut::undo));
  platform::SettingsTexts t;
  t.title = "Tarry Settings";
  t.labels = {
      {"section.general", "General"},
      {"section.careful", "Careful mode"},
      {"section.apps", "Apps"},
      {"section.look", "Tray and look"},
      {"enabled", "Protect " + quit},
      {"styleIndex", "To confirm:"},
      {"holdSeconds", "Hold " + quit + " for:"},
      {"closeHoldIndex", "Hold " + close + " (close window):"},
      {"logoutHoldIndex", "Hold " + logout + " (sent to the app):"},
      {"showHUD", "Show the progress panel while holding"},
      {"playSound", "Play a sound when an app quits"},
      {"unsavedWarn", "Warn and hold longer when an app has unsaved work"},
      {"busyGuard", "Hold longer while an app is busy (a command running in a terminal)"},
      {"workHours", "Careful mode during work hours, from"},
      {"workToIndex", "to"},
      {"workWeekdays", "On weekdays only"},
      {"micStrict", "Careful mode while the microphone is in use"},
      {"undoQuit", "Keep quit apps ready for Undo Quit (" + undo + ")"},
      {"ramSaverIndex", "RAM Saver, quit apps left idle:"},
      {"showMenuBar", "Show Tarry in the tray"},
      {"menuCounter", "Show today's blocked count on the tray icon"},
      {"appearanceIndex", "Appearance:"},
      {"launchAtLogin", "Start Tarry when I log in"},
      {"autoUpdate", "Check for updates automatically"},
      {"checkNow", "Check Now"},
      {"rules", "App Rules…"},
      {"stats", "Statistics…"},
      {"reset", "Reset Settings…"},
  };
  const auto styles = styleTitles();
  t.items["styleIndex"] = {styles[0], styles[1]};
  t.items["appearanceIndex"] = {kAppearanceTitles.begin(), kAppearanceTitles.end()};
  t.items["closeHoldIndex"] = titlesOf(kCloseHoldChoices);
  t.items["logoutHoldIndex"] = titlesOf(kLogoutHoldChoices);
  t.items["ramSaverIndex"] = titlesOf(kRamSaverChoices);
  std::vector<std::string> hours;
  for (int h = 0; h < kHourCount; ++h) hours.push_back(hourTitle(h));
  t.items["workFromIndex"] = hours;
  t.items["workToIndex"] = hours;
  return t;
}

platform::GuardStatus guardStatus(bool working, const std::string& problem, const std::string& route) {
  // Which combinations it guards is up to the settings above; this line only says it works, and how.
  if (working && problem.empty()) {
    return {true, route.empty() ? "Keyboard guard on" : "Keyboard guard on, through " + route, ""};
  }
  if (working) {
    return {false, "Keyboard guard not working: " + problem,
            "Tarry needs a window manager that tells which window is active (EWMH), as GNOME, KDE "
            "Plasma, Xfce and openbox do. It starts working by itself as soon as one runs."};
  }
  return {false, problem.empty() ? "Keyboard guard off" : "Keyboard guard off: " + problem,
          "Tarry keeps trying by itself. It works on X11, sway, KDE Plasma and GNOME; if another program "
          "uses one of the shortcuts, free it there or in your desktop's keyboard settings."};
}

std::string holdValueText(double seconds) {
  char text[16];
  if (seconds == std::floor(seconds)) {
    std::snprintf(text, sizeof text, "%d s", static_cast<int>(seconds));
  } else {
    std::snprintf(text, sizeof text, "%.1f s", seconds);
  }
  return text;
}

SettingsWindow::SettingsWindow(std::unique_ptr<platform::SettingsView> view, SettingsController& controller,
                               SettingsWindowHooks hooks)
    : view_(std::move(view)), controller_(controller), hooks_(std::move(hooks)) {
  view_->setTexts(settingsTexts());
  view_->setActions(this);
}

SettingsWindow::~SettingsWindow() { view_->setActions(nullptr); }

void SettingsWindow::refresh() {
  const platform::SettingsControls c = controller_.controls();
  view_->setControls(c, holdValueText(c.holdSeconds));
  const bool working = hooks_.tapActive ? hooks_.tapActive() : false;
  const auto& why = working ? hooks_.guardProblem : hooks_.tapProblem;
  view_->setGuardStatus(guardStatus(working, why ? why() : "", hooks_.guardRoute ? hooks_.guardRoute() : ""));
}

void SettingsWindow::show() {
  refresh();
  view_->present();
}

void SettingsWindow::changed(const platform::SettingsControls& controls) {
  controller_.changed(controls);
  // The controller's refresh hook may be wired to this window already; a second read is cheap and
  // keeps the window right when it is not.
  refresh();
}

void SettingsWindow::holdSliderMoved(double seconds, const platform::SettingsControls& controls) {
  controller_.holdSliderMoved(seconds, controls);
  refresh();
}

void SettingsWindow::pressed(const std::string& button) {
  const auto call = [this, &button](const std::function<void()>& hook) {
    if (hook) {
      hook();
    } else if (hooks_.log) {
      hooks_.log("settings: " + button + " is not available in this build");
    }
  };
  if (button == "reset") {
    if (controller_.resetToDefaults()) refresh();
  } else if (button == "rules") {
    call(hooks_.openRules);
  } else if (button == "stats") {
    call(hooks_.openStats);
  } else if (button == "checkNow") {
    call(hooks_.checkNow);
  }
}

void SettingsWindow::activated() { refresh(); }

}  // namespace tarry::settings
