#include "cli/apps_main.h"

#include "cli/apps_command.h"
#include "cli/command_store.h"
#include "platform/linux/desktop_entry_reader.h"
#include "platform/x11/x11_display.h"
#include "platform/x11/x11_workspace.h"
#include "settings/preferences.h"

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

namespace tarry::cli {

int runApps(int argc, char** /*argv*/) {
  if (argc > 2) {
    std::fputs("usage: tarry apps    list the running apps with their ids, names and Ctrl+Q rules\n", stderr);
    return 2;
  }
  const char* displayName = std::getenv("DISPLAY");
  if (displayName == nullptr || *displayName == '\0') {
    std::fputs("tarry apps: cannot open the X display (DISPLAY is not set)\n", stderr);
    return 1;
  }
  std::string error;
  auto display = platform::x11::X11Display::open(displayName, error);
  if (!display) {
    std::fprintf(stderr, "tarry apps: %s\n", error.c_str());
    return 1;
  }
  CommandStore opened;
  settings::Preferences prefs(opened.store());
  platform::os::DesktopEntryReader entries;
  platform::x11::X11Workspace workspace(*display, entries);
  std::cout << appsTable(workspace.runningApplications(), prefs, workspace);
  return 0;
}

}  // namespace tarry::cli
