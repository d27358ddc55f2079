#include "desktop/desktop_shell.h"

#include "app/about.h"
#include "platform/qt/qt_app_list_window.h"
#include "platform/qt/qt_settings_window.h"
#include "platform/qt/qt_small_windows.h"
#include "platform/qt/qt_stats_window.h"
#include "platform/qt/qt_status_item.h"
#include "platform/qt/qt_window_shortcuts.h"
#include "settings/app_list_controller.h"
#include "settings/app_rules.h"
#include "settings/preferences.h"
#include "settings/settings_window.h"
#include "stats/stats_controller.h"

#include <QApplication>
#include <QSystemTrayIcon>

#include <utility>

namespace tarry::desktop {

DesktopShell::DesktopShell(ShellDeps deps, ShellHooks hooks, int waitForTrayHostMs,
                           StatusItemPlacement placement)
    : deps_(std::move(deps)),
      hooks_(std::move(hooks)),
      waitForTrayHostMs_(waitForTrayHostMs),
      placement_(std::move(placement)) {
  auto tray = std::make_unique<platform::qt::QtStatusItem>(waitForTrayHostMs);
  item_ = tray.get();
  std::unique_ptr<platform::StatusItemView> item = std::move(tray);
  if (placement_.wrap) item = placement_.wrap(std::move(item));
  app::StatusMenuHooks m;
  m.tapInstalled = [this] { return hooks_.tapActive && hooks_.tapActive(); };
  m.tapProblem = [this] { return hooks_.tapProblem ? hooks_.tapProblem() : std::string(); };
  m.guardProblem = [this] { return hooks_.guardProblem ? hooks_.guardProblem() : std::string(); };
  m.undoTitle = [this] { return hooks_.undoTitle ? hooks_.undoTitle() : std::nullopt; };
  m.refreshSettings = [this] {
    // The switch changed `enabled`: everything that shows it follows.
    if (hooks_.changed) {
      hooks_.changed();
    } else {
      refreshSettings();
    }
  };
  m.pauseFor = [this](int minutes) {
    if (hooks_.pauseFor)
      hooks_.pauseFor(minutes);
    else
      log("pause is not available in this build");
  };
  m.resumeNow = [this] {
    if (hooks_.resumeNow) hooks_.resumeNow();
  };
  m.undoQuit = [this] {
    if (hooks_.undoQuit)
      hooks_.undoQuit();
    else
      log("nothing to undo");
  };
  m.reopenRecent = [this](const std::string& path) {
    if (hooks_.reopenRecent)
      hooks_.reopenRecent(path);
    else
      log("reopening " + path + " is not available in this build");
  };
  m.openStats = [this] { hooks_.openStats ? hooks_.openStats() : showStats(); };
  m.openRules = [this] { hooks_.openRules ? hooks_.openRules() : showRules(); };
  m.openSettings = [this] { hooks_.openSettings ? hooks_.openSettings() : showSettings(); };
  m.openAbout = [this] { hooks_.openAbout ? hooks_.openAbout() : showAbout(); };
  m.quitOthers = [this] {
    if (hooks_.quitOthers)
      hooks_.quitOthers();
    else
      log("Quit All Other Apps is not available in this build");
  };
  m.checkUpdates = [this] {
    if (hooks_.checkUpdates)
      hooks_.checkUpdates();
    else
      log("the update check is not available in this build");
  };
  m.quit = [this] {
    if (hooks_.quit)
      hooks_.quit();
    else
      deps_.loop.quit(0);
  };
  m.log = [this](const std::string& line) { log(line); };
  menu_ = std::make_unique<app::StatusMenu>(std::move(item), deps_.store, deps_.counters, deps_.loop,
                                            std::move(m));
}

DesktopShell::~DesktopShell() = default;

void DesktopShell::log(const std::string& line) const {
  if (hooks_.log) hooks_.log(line);
}

void DesktopShell::showSettings() {
  if (!settingsWindow_) {
    settings::SettingsController* controller =
        hooks_.settingsController ? hooks_.settingsController() : nullptr;
    if (controller == nullptr) {
      log("settings: the window is not available before the launch has finished");
      return;
    }
    settings::SettingsWindowHooks h;
    h.tapActive = [this] { return hooks_.tapActive && hooks_.tapActive(); };
    h.tapProblem = [this] { return hooks_.tapProblem ? hooks_.tapProblem() : std::string(); };
    h.guardProblem = [this] { return hooks_.guardProblem ? hooks_.guardProblem() : std::string(); };
    h.guardRoute = [this] { return hooks_.guardRoute ? hooks_.guardRoute() : std::string(); };
    h.openRules = [this] { menu_->chose(platform::MenuRow::rules); };
    h.openStats = [this] { menu_->chose(platform::MenuRow::stats); };
    h.checkNow = [this] { menu_->chose(platform::MenuRow::checkUpdates); };
    h.log = [this](const std::string& line) { log(line); };
    settingsWindow_ = std::make_unique<settings::SettingsWindow>(
        std::make_unique<platform::qt::QtSettingsWindow>(), *controller, std::move(h));
  }
  settingsWindow_->show();
}

void DesktopShell::refreshSettings() {
  if (settingsWindow_) settingsWindow_->refresh();
}

bool DesktopShell::settingsVisible() const { return settingsWindow_ && settingsWindow_->isVisible(); }

void DesktopShell::showStats() {
  if (!stats_) {
    clipboard_ = std::make_unique<platform::qt::QtClipboard>();
    stats_ = std::make_unique<stats::StatsController>(std::make_unique<platform::qt::QtStatsWindow>(),
                                                      "Tarry", deps_.counters, deps_.store, deps_.loop,
                                                      deps_.alerts, *clipboard_);
  }
  stats_->show();
}

void DesktopShell::showRules() {
  if (!rules_) {
    prefs_ = std::make_unique<settings::Preferences>(deps_.store);
    appRules_ = std::make_unique<settings::AppRules>(*prefs_, [this] {
      if (hooks_.rescheduleRamSaver) hooks_.rescheduleRamSaver();
    });
    settings::AppRules* model = appRules_.get();
    rules_ = std::make_unique<settings::AppListController>(
        std::make_unique<platform::qt::QtAppListWindow>(), deps_.workspace, deps_.desktopEntries,
        [model] { return model->rules(); },
        [model](const settings::AppListController::Rules& r) { model->setRules(r); }, model->extras());
  }
  rules_->show();
}

void DesktopShell::setUpWindowShortcuts() {
  if (shortcuts_) return;
  shortcuts_ = std::make_unique<platform::qt::QtWindowShortcuts>(
      platform::qt::QtWindowShortcuts::Actions{[this] {
                                                 if (hooks_.openSettings) hooks_.openSettings();
                                               },
                                               [this] {
                                                 if (hooks_.quit) hooks_.quit();
                                               }});
}

void DesktopShell::showAbout() {
  if (!about_) {
    about_ = std::make_unique<platform::qt::QtAboutWindow>();
    about_->setTexts(app::aboutTexts(deps_.serverURL));
  }
  about_->present();
}

void DesktopShell::whenNoTray(std::function<void()> fallback) {
  // A little after the item's own wait, so that it has had its chance.
  trayCheck_ = deps_.loop.after(waitForTrayHostMs_ / 1000.0 + 1.0, [this, fallback = std::move(fallback)] {
    if (!settings::Preferences(deps_.store).showMenuBar()) return;  // hidden on purpose
    if (placement_.shownElsewhere && placement_.shownElsewhere()) return;
    QSystemTrayIcon* tray = item_->trayIcon();
    if (tray != nullptr && tray->isVisible() && QSystemTrayIcon::isSystemTrayAvailable()) return;
    if (fallback) fallback();
  });
}

bool DesktopShell::modalWindowUp() { return QApplication::activeModalWidget() != nullptr; }

}  // namespace tarry::desktop
