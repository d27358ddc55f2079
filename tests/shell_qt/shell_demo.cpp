// tarry-shell-demo: the tray item and the windows of the desktop program over an in-memory
// preferences domain, for the tray-host test and the screenshot script. It prints one "state"
// line whenever what a tray host should see changes.
#include "desktop/desktop_shell.h"
#include "platform/qt/qt_alerts.h"
#include "platform/qt/qt_main_loop.h"
#include "platform/qt/qt_status_item.h"
#include "platform/sim/memory_defaults_store.h"
#include "platform/sim/sim_desktop_entries.h"
#include "platform/sim/sim_services.h"
#include "platform/sim/sim_workspace.h"
#include "settings/preferences.h"

#include <QApplication>
#include <QMenu>
#include <QSystemTrayIcon>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

using namespace tarry;

int main(int argc, char** argv) {
  QApplication application(argc, argv);
  QApplication::setQuitOnLastWindowClosed(false);
  std::string open;
  long long saved = 0;
  bool tap = true;
  int waitMs = 5000;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (std::strcmp(argv[i], "--open") == 0) open = argv[i + 1];
    if (std::strcmp(argv[i], "--saved") == 0) saved = std::atoll(argv[i + 1]);
    if (std::strcmp(argv[i], "--tap") == 0) tap = std::strcmp(argv[i + 1], "off") != 0;
    if (std::strcmp(argv[i], "--wait-ms") == 0) waitMs = std::atoi(argv[i + 1]);
  }

  platform::qt::QtMainLoop loop;
  platform::sim::MemoryDefaultsStore store;
  common::Counters counters(store, loop);
  counters.start();
  if (saved > 0) counters.add("saved", saved);
  settings::Tunables tunables;
  platform::qt::QtAlerts alerts;
  platform::sim::SimWorkspace workspace;
  platform::sim::SimDesktopEntries entries;
  platform::sim::SimLoginItems loginItems;
  platform::sim::SimAppearance appearance;
  settings::Preferences prefs(store);
  desktop::DesktopShell* shellPtr = nullptr;
  settings::SettingsController controller(
      store, loginItems, appearance, alerts,
      settings::SettingsHooks{{},
                              {},
                              {},
                              {},
                              [&shellPtr] { shellPtr->refreshSettings(); },
                              [&shellPtr] { shellPtr->statusMenu().refreshStatus(); }});

  desktop::ShellHooks hooks;
  hooks.tapActive = [tap] { return tap; };
  hooks.tapProblem = [] { return std::string("Ctrl+Q is taken by another program"); };
  hooks.settingsController = [&controller] { return &controller; };
  hooks.pauseFor = [&](int minutes) {
    store.set("pauseUntil", loop.now() + (minutes > 0 ? minutes * 60.0 : 8 * 3600.0));
  };
  hooks.resumeNow = [&] { store.set("pauseUntil", 0.0); };
  hooks.log = [](const std::string& line) {
    std::printf("log %s\n", line.c_str());
    std::fflush(stdout);
  };
  desktop::DesktopShell shell(
      {loop, store, counters, tunables, alerts, workspace, entries, "https://tarry.example"}, hooks, waitMs);
  shellPtr = &shell;
  shell.statusMenu().refreshStatus();

  std::string last;
  platform::Scheduled watch = loop.every(0.05, [&] {
    QSystemTrayIcon* tray = shell.statusItem().trayIcon();
    const std::string line = "state enabled=" + std::to_string(prefs.enabled() ? 1 : 0) +
                             " paused=" + std::to_string(loop.now() < prefs.pauseUntil() ? 1 : 0) +
                             " icon=" + shell.statusItem().currentIcon().name().toStdString() + " tray=" +
                             std::string(tray == nullptr ? "none" : (tray->isVisible() ? "shown" : "hidden"));
    if (line == last) return;
    last = line;
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
  });

  if (open == "settings") shell.showSettings();
  if (open == "stats") shell.showStats();
  if (open == "about") shell.showAbout();
  if (open == "rules") shell.showRules();
  if (open == "menu") shell.statusItem().menu()->popup(QPoint(900, 40));
  return loop.run();
}
