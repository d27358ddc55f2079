#include "desktop/desktop_shell_wiring.h"

#include "app/app_delegate.h"
#include "desktop/desktop_shell.h"
#include "platform/event_tap.h"
#include "platform/qt/qt_status_item.h"
#include "platform/qt/qt_window_raise.h"

#include <QApplication>
#include <QEvent>
#include <QObject>
#include <QSystemTrayIcon>
#include <QWidget>

namespace tarry::desktop {
namespace {

/// After one of the program's windows closes, the desktop may answer with a focus change that
/// reads as a reopen; the presenter ignores reopens for `dockSettleSec` then.
class WindowCloseStamp final : public QObject {
 public:
  WindowCloseStamp(app::AppDelegate& delegate, platform::MainLoop& loop, const settings::Tunables& tunables)
      : QObject(qApp), delegate_(delegate), loop_(loop), tunables_(tunables) {}

  bool eventFilter(QObject* watched, QEvent* event) override {
    if (event->type() == QEvent::Hide && watched->isWidgetType() &&
        static_cast<QWidget*>(watched)->isWindow()) {
      const double until = loop_.uptime() + tunables_.real(settings::T::dockSettleSec);
      app::PresenterStamps& stamps = delegate_.presenter();
      if (until > stamps.ignoreReopenUntil) stamps.ignoreReopenUntil = until;
    }
    return false;
  }

 private:
  app::AppDelegate& delegate_;
  platform::MainLoop& loop_;
  const settings::Tunables& tunables_;
};

}  // namespace

void wireDesktopShell(app::AppDelegate& delegate, DesktopShell& shell, platform::EventTap& tap,
                      platform::MainLoop& loop, const settings::Tunables& tunables,
                      std::function<void(const std::string&)> log) {
  ShellHooks& s = shell.hooks();
  s.tapActive = [&delegate] { return delegate.tapActive(); };
  s.tapProblem = [&tap] { return tap.lastError(); };
  s.guardProblem = [&delegate] { return delegate.guardian().state().problem; };
  s.settingsController = [&delegate] { return delegate.settings(); };
  s.openSettings = [&delegate] { delegate.openSettings(); };
  s.openStats = [&delegate] { delegate.openStats(); };
  s.openRules = [&delegate] { delegate.openRules(); };
  s.openAbout = [&delegate] { delegate.openAbout(); };
  s.pauseFor = [&delegate](int minutes) { delegate.pauseFor(minutes); };
  s.resumeNow = [&delegate] { delegate.resumeNow(); };
  s.changed = [&delegate] { delegate.changed(); };
  s.quit = [&delegate] {
    if (delegate.hooks().terminate) delegate.hooks().terminate();
  };
  s.log = log;
  // Undo Quit, Quit All Others, the update check and the RAM Saver fill their rows' hooks where the
  // program builds them (desktop.cpp); a row whose hook is empty says "nothing to undo" or logs.

  app::AppHooks& h = delegate.hooks();
  h.setUpMainMenu = [&shell] { shell.setUpWindowShortcuts(); };
  h.setUpStatusItem = [&shell, &delegate, log] {
    shell.statusMenu().refreshStatus();
    // With no tray on this desktop at all, Settings opens so that Tarry is never invisible.
    shell.whenNoTray([&delegate, log] {
      if (log) log("no system tray on this desktop: showing Settings instead");
      delegate.openSettings();
    });
  };
  h.refreshStatusItem = [&shell](bool /*paused*/) { shell.statusMenu().refreshStatus(); };
  // Called on every poll tick: some tray hosts never say that the menu opens, so the whole status is
  // brought up to date here; rows that did not change are not sent again.
  h.updateMenuCounter = [&shell] { shell.statusMenu().refreshStatus(); };
  h.showSettingsWindow = [&shell, &delegate] {
    // A second launch's startup id carries the time of the user's click: with it, the window
    // manager lets Settings take the focus.
    platform::qt::useStartupId(delegate.activationToken());
    shell.showSettings();
  };
  h.refreshSettingsWindow = [&shell] { shell.refreshSettings(); };
  h.settingsWindowVisible = [&shell] { return shell.settingsVisible(); };
  h.modalWindowUp = [] { return DesktopShell::modalWindowUp(); };
  // The delegate stamps its own activation only when it opens Settings; the other windows are
  // brought forward by the same presenter and stamp it too.
  const auto stamped = [&delegate, &shell, &loop](void (DesktopShell::*show)()) {
    return [&delegate, &shell, &loop, show] {
      delegate.presenter().lastOwnActivation = loop.uptime();
      (shell.*show)();
    };
  };
  h.showStatsWindow = stamped(&DesktopShell::showStats);
  h.showRulesWindow = stamped(&DesktopShell::showRules);
  h.showAboutWindow = stamped(&DesktopShell::showAbout);

  qApp->installEventFilter(new WindowCloseStamp(delegate, loop, tunables));
}

}  // namespace tarry::desktop
