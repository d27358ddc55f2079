#include "settings/announcement.h"

#include <string>

namespace tarry::settings {

bool showAnnouncement(const Tunables& tunables, Preferences& prefs, guard::HudDisplay& hud,
                      const platform::Icon& appIcon) {
  const auto id = tunables.integer(T::announceId);
  if (id < 1) return false;
  const std::string text = tunables.text(T::announceText);
  if (text.empty() || prefs.lastAnnounceId() >= id) return false;
  // NOTE: stored before showing, so that a crash while it is on screen does not show it again.
  prefs.setLastAnnounceId(id);
  hud.flash(text, appIcon, tunables.real(T::announceSec));
  return true;
}

}  // namespace tarry::settings
