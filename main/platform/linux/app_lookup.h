#pragma once

#include "platform/desktop_entries.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tarry::platform::os {

/// The path of a process's executable (`/proc/<pid>/exe`); empty when it cannot be read.
[[nodiscard]] std::string executableOf(std::int32_t pid);

/// The desktop entry of an app known by the names its windows carry (an app id, a WM class, ...):
/// for each of `names` in order, the entry of that id, else the one that declares it as its
/// StartupWMClass; failing all, the entry whose id is one of `lowercased`, lowercased (many entries
/// carry no StartupWMClass and are simply named after the program). Empty names are skipped.
[[nodiscard]] std::optional<DesktopEntry> entryOfNames(DesktopEntries& entries,
                                                       const std::vector<std::string>& names,
                                                       const std::vector<std::string>& lowercased);

}  // namespace tarry::platform::os
