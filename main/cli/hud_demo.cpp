#include "cli/hud_demo.h"

#include "guard/combo.h"
#include "guard/hud.h"
#include "platform/qt/qt_hud_panel.h"
#include "platform/qt/qt_main_loop.h"
#include "platform/qt/qt_screens.h"
#include "settings/tunables.h"

#include <QApplication>

#include <xcb/xcb.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace tarry::cli {
namespace {

/// Why no window can be shown, or empty when one can. Qt aborts the process when its platform
/// plugin cannot connect, so the usual cases are checked before it is asked.
std::string missingDisplay() {
  const char* platform = std::getenv("QT_QPA_PLATFORM");
  if (platform != nullptr && *platform != '\0') return {};  // the user chose; Qt will say if it fails
  const char* display = std::getenv("DISPLAY");
  if (display != nullptr && *display != '\0') {
    xcb_connection_t* connection = xcb_connect(display, nullptr);
    const bool failed = xcb_connection_has_error(connection) != 0;
    xcb_disconnect(connection);
    if (failed) return std::string("cannot open display ") + display;
    return {};
  }
  const char* wayland = std::getenv("WAYLAND_DISPLAY");
  if (wayland != nullptr && *wayland != '\0') return {};
  return "no display (neither DISPLAY nor WAYLAND_DISPLAY is set)";
}

}  // namespace

int runHudDemo(int argc, char** argv) {
  if (const std::string why = missingDisplay(); !why.empty()) {
    std::fprintf(stderr, "tarry: --hud-demo needs a graphical session: %s\n", why.c_str());
    return 1;
  }
  QApplication application(argc, argv);
  // No other window: closing none of them must not end the demo.
  QApplication::setQuitOnLastWindowClosed(false);

  platform::qt::QtMainLoop loop;
  platform::qt::QtScreens screens;
  platform::qt::QtHudPanel panel;
  settings::Tunables tunables;
  guard::HUD hud(panel, screens, loop, tunables);

  constexpr double kHoldSeconds = 3.0;
  hud.show("Hold " + std::string(guard::keysText(guard::Shortcut::quit)) + " to quit Demo",
           platform::Icon{"app.fill", 0, 0, nullptr}, kHoldSeconds);
  const double shownAt = loop.uptime();
  const platform::Scheduled ticker =
      loop.every(1.0 / 60, [&] { hud.update(loop.uptime() - shownAt, kHoldSeconds); });
  return loop.run();
}

}  // namespace tarry::cli
