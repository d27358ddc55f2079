#pragma once

#include "guard/hud_display.h"
#include "platform/workspace.h"
#include "settings/preferences.h"
#include "settings/tunables.h"

namespace tarry::settings {

/// Shows the announcement of the remote configuration once per user: when it names an identifier
/// above the one last shown and has a text, remembers the identifier first, then flashes the text
/// on the HUD with `appIcon` for `announceSec`. Returns true when it showed it.
bool showAnnouncement(const Tunables& tunables, Preferences& prefs, guard::HudDisplay& hud,
                      const platform::Icon& appIcon);

}  // namespace tarry::settings
