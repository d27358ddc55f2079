#pragma once

#include "app/status_menu.h"
#include "common/counters.h"
#include "platform/alerts.h"
#include "platform/defaults_store.h"
#include "platform/desktop_entries.h"
#include "platform/main_loop.h"
#include "platform/workspace.h"
#include "settings/settings_controller.h"
#include "settings/tunables.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tarry::platform::qt {
class QtAboutWindow;
class QtClipboard;
class QtStatusItem;
class QtWindowShortcuts;
}  // namespace tarry::platform::qt

namespace tarry::settings {
class AppListController;
class AppRules;
class Preferences;
class SettingsWindow;
}  // namespace tarry::settings

namespace tarry::stats {
class StatsController;
}  // namespace tarry::stats

namespace tarry::desktop {

/// What the desktop shell works with. NOTE: every reference must outlive the shell.
struct ShellDeps {
  platform::MainLoop& loop;
  platform::DefaultsStore& store;
  common::Counters& counters;
  settings::Tunables& tunables;
  platform::Alerts& alerts;
  platform::Workspace& workspace;
  platform::DesktopEntries& desktopEntries;
  /// The configured server ("" for none), for the About window.
  std::string serverURL;
};

/// What the shell asks of the application around it. Every member may be left empty: the window
/// actions then open their window directly and the others write a log line.
struct ShellHooks {
  /// How the guard gets the keys on this desktop, for Settings; may be left empty.
  std::function<std::string()> guardRoute;
  /// The keyboard guard has its grabs in place, and why not.
  std::function<bool()> tapActive;
  std::function<std::string()> tapProblem;
  std::function<std::string()> guardProblem;
  /// The Settings logic (absent before the launch sequence has run).
  std::function<settings::SettingsController*()> settingsController;
  /// Menu actions that belong to the application: they count, stamp the window presenter and
  /// then call back `showSettings`, `showStats`, … of this shell.
  std::function<void()> openSettings;
  std::function<void()> openStats;
  std::function<void()> openRules;
  std::function<void()> openAbout;
  std::function<void(int)> pauseFor;
  std::function<void()> resumeNow;
  /// The process-wide change hook, after the menu's protection switch.
  std::function<void()> changed;
  std::function<void()> quit;
  // Undo Quit, Quit All Others, the update check and RAM Saver fill these.
  /// Undo Quit's "Undo Quit …" title for its record, nothing when there is nothing to undo.
  std::function<std::optional<std::string>()> undoTitle;
  std::function<void()> undoQuit;
  std::function<void(const std::string&)> reopenRecent;
  std::function<void()> quitOthers;
  std::function<void()> checkUpdates;
  std::function<void()> rescheduleRamSaver;
  std::function<void(const std::string&)> log;
};

/// The program's visible parts on the desktop: the tray item and its menu, and the Settings,
/// Statistics, App Rules and About windows, each made on first use and kept.
/// Where the status item shows besides the tray, on desktops that have a place of their own for it
/// (GNOME's top bar, through Tarry's Shell extension). Both may be left empty.
struct StatusItemPlacement {
  /// Wraps the tray item into one that also shows elsewhere.
  std::function<std::unique_ptr<platform::StatusItemView>(std::unique_ptr<platform::StatusItemView> tray)>
      wrap;
  /// True while the item shows elsewhere: no Settings window then stands in for a missing tray.
  std::function<bool()> shownElsewhere;
};

class DesktopShell final {
 public:
  DesktopShell(ShellDeps deps, ShellHooks hooks, int waitForTrayHostMs = 5000,
               StatusItemPlacement placement = {});
  ~DesktopShell();
  DesktopShell(const DesktopShell&) = delete;
  DesktopShell& operator=(const DesktopShell&) = delete;

  [[nodiscard]] app::StatusMenu& statusMenu() { return *menu_; }
  [[nodiscard]] platform::qt::QtStatusItem& statusItem() { return *item_; }

  void showSettings();
  void refreshSettings();
  [[nodiscard]] bool settingsVisible() const;
  void showStats();
  void showRules();
  void showAbout();
  /// Runs `fallback` once if, when the wait for a tray host is over, no tray shows the item (no
  /// StatusNotifier host and no XEmbed tray on this desktop).
  void whenNoTray(std::function<void()> fallback);
  /// True while a modal alert or dialog of the program is up.
  [[nodiscard]] static bool modalWindowUp();
  /// The keyboard shortcuts of the program's own windows (Ctrl+, for Settings, Ctrl+Q to quit),
  /// which stand in for an application menu bar. Once; later calls do nothing.
  void setUpWindowShortcuts();

  [[nodiscard]] ShellHooks& hooks() { return hooks_; }

 private:
  void log(const std::string& line) const;

  ShellDeps deps_;
  ShellHooks hooks_;
  platform::qt::QtStatusItem* item_ = nullptr;  // owned by menu_
  std::unique_ptr<app::StatusMenu> menu_;
  std::unique_ptr<platform::qt::QtClipboard> clipboard_;
  std::unique_ptr<settings::SettingsWindow> settingsWindow_;
  std::unique_ptr<stats::StatsController> stats_;
  std::unique_ptr<settings::Preferences> prefs_;
  std::unique_ptr<settings::AppRules> appRules_;
  std::unique_ptr<settings::AppListController> rules_;
  std::unique_ptr<platform::qt::QtAboutWindow> about_;
  std::unique_ptr<platform::qt::QtWindowShortcuts> shortcuts_;
  int waitForTrayHostMs_;
  StatusItemPlacement placement_;
  platform::Scheduled trayCheck_;
};

}  // namespace tarry::desktop
