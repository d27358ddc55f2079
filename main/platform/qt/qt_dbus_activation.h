#pragma once

#include <string>

namespace tarry::platform::qt {

/// Starts the application with this desktop-file id through `org.freedesktop.Application.Activate`
/// on the session bus (the bus starts it when needed); true when it answered within 5 s.
/// NOTE: blocks; call it off the main thread.
bool activateOnSessionBus(const std::string& desktopId);

}  // namespace tarry::platform::qt
