#pragma once

#include <string>

namespace tarry::desktop {

struct DesktopOptions {
  /// Started by the session at login ("--autostart" in the autostart entry).
  bool loginLaunch = false;
};

/// The desktop program on an X11 session, until it is told to quit, SIGINT or SIGTERM. A second
/// copy on the same display hands over to the first ("show settings") and returns 0. Without a
/// reachable X display it says so in one line and returns non-zero.
int runDesktop(int argc, char** argv, const DesktopOptions& options);

/// Sends one request ("pause 15", "resume") to the copy running on this display; 0 when it
/// answered "ok", else 1 with the reason on standard error.
int sendToRunningCopy(const std::string& request);

}  // namespace tarry::desktop
