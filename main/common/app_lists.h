#pragma once

#include "platform/workspace.h"

#include <string>
#include <string_view>
#include <vector>

namespace tarry::settings {
class Tunables;
}  // namespace tarry::settings

namespace tarry::common {

/// The items of a comma-separated list, trimmed, empty ones dropped.
[[nodiscard]] std::vector<std::string> commaList(std::string_view text);

/// True when `id` is in `ids`.
[[nodiscard]] bool listed(const std::vector<std::string>& ids, const std::string& id);

/// The file manager (the desktop's own, never to be quit), by its identifiers on this desktop.
[[nodiscard]] bool isFileManager(platform::Workspace& workspace, const std::string& bundleID);

/// The never-quit set: the file manager plus the remote list `neverQuitExtra`.
[[nodiscard]] bool isNeverQuit(platform::Workspace& workspace, const settings::Tunables& tunables,
                               const std::string& bundleID);

/// "A", "A and B", "A, B and C"; past `max` names the first `max` - 1 and "and 4 more".
[[nodiscard]] std::string namesText(const std::vector<std::string>& names, std::size_t max = 8);

/// The name to show for an app: its localized name, else its identifier, else "app".
[[nodiscard]] std::string displayName(const platform::RunningApp& app);

}  // namespace tarry::common
