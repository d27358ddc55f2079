#pragma once

#include <functional>
#include <string>

namespace tarry::platform {
class EventTap;
class MainLoop;
}  // namespace tarry::platform

namespace tarry::settings {
class Tunables;
}  // namespace tarry::settings

namespace tarry::app {
class AppDelegate;
}  // namespace tarry::app

namespace tarry::desktop {

class DesktopShell;

/// Plugs the tray item and the Settings, Statistics, App Rules and About windows into the
/// delegate's hooks, and the delegate's actions (pause, resume, open…, quit) into the menu.
/// Call before `applicationDidFinishLaunching`. `log` writes one line to the application log.
/// NOTE: the delegate, the shell and the tap must outlive each other's use here: all three live
/// until the program's loop has ended.
void wireDesktopShell(app::AppDelegate& delegate, DesktopShell& shell, platform::EventTap& tap,
                      platform::MainLoop& loop, const settings::Tunables& tunables,
                      std::function<void(const std::string&)> log);

}  // namespace tarry::desktop
