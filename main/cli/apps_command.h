#pragma once

#include "platform/workspace.h"
#include "settings/preferences.h"

#include <string>
#include <vector>

namespace tarry::cli {

/// What Ctrl+Q does for `app` now, in a few words: its rule ("instant (Quit instantly)"), or why it
/// has none of its own ("hold (default)", "never (always protected)", "not guarded (only listed
/// apps)").
[[nodiscard]] std::string ruleText(const platform::RunningApp& app, const settings::Preferences& prefs,
                                   const platform::Workspace& workspace);

/// The table `tarry apps` prints: one row per running app with a window (regular apps first, then
/// by name) with its id, name and current rule, under a header line, and a last line on how to set
/// a rule.
[[nodiscard]] std::string appsTable(std::vector<platform::RunningApp> apps,
                                    const settings::Preferences& prefs, const platform::Workspace& workspace);

}  // namespace tarry::cli
