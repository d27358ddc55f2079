#pragma once

#include <string>
#include <vector>

namespace tarry::platform::os {

/// `$XDG_CONFIG_HOME/tarry` (else `~/.config/tarry`).
[[nodiscard]] std::string configDirectory();
/// `$XDG_RUNTIME_DIR` (else the temporary directory).
[[nodiscard]] std::string runtimeDirectory();
/// The data directories that hold `applications/` folders: `$XDG_DATA_HOME` (else
/// `~/.local/share`) first, then each of `$XDG_DATA_DIRS` (else `/usr/local/share:/usr/share`).
[[nodiscard]] std::vector<std::string> dataDirectories();

}  // namespace tarry::platform::os
