#pragma once

#include "platform/workspace.h"

#include <string>

namespace tarry::guard {

/// True when the identifier belongs to a terminal emulator: one of the identifiers terminals have
/// everywhere, or one the desktop names (on Linux: every installed application whose desktop
/// entry lists the `TerminalEmulator` category, plus the usual ids). Case does not matter: the
/// identifier may come from a desktop-file id, a WM_CLASS or an executable name ("XTerm", "xterm").
/// NOTE: the one test for careful mode and for usage-event categories.
[[nodiscard]] bool isTerminalApp(const platform::Workspace& workspace, const std::string& bundleID);

}  // namespace tarry::guard
