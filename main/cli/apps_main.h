#pragma once

namespace tarry::cli {

/// `tarry apps`: prints the running apps of the X display with their ids, names and current
/// Ctrl+Q rules; 1 when the display cannot be reached.
int runApps(int argc, char** argv);

}  // namespace tarry::cli
