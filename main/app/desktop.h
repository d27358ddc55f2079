#pragma once

namespace tarry::app {

/// The desktop program on an X11 session: the keyboard guard with its HUD, until SIGINT or
/// SIGTERM. Without a reachable X display it says so in one line and returns non-zero.
int runDesktop(int argc, char** argv);

}  // namespace tarry::app
