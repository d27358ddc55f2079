#pragma once

#include "app/session_backends.h"

namespace tarry::app {

/// The backends of a GNOME (Wayland) session, through Tarry's Shell extension; nothing when the
/// session bus cannot be reached or another program owns Tarry's bus name (`error` says why).
[[nodiscard]] std::unique_ptr<SessionBackends> openGnomeBackends(const Session& session,
                                                                 platform::DesktopEntries& entries,
                                                                 std::string& error);

/// True when `desktop` ($XDG_CURRENT_DESKTOP, a colon-separated list) names GNOME.
[[nodiscard]] bool isGnomeDesktop(const std::string& desktop);

}  // namespace tarry::app
