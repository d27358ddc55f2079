#pragma once

#include "platform/login_items.h"

#include <string>

namespace tarry::platform::os {

/// Launching at login through the XDG autostart folder: "<config home>/autostart/<app id>.desktop"
/// whose command runs this program with "--autostart" (which marks a login launch).
/// Enabled means: the file exists, `Hidden` is not true and `X-GNOME-Autostart-enabled` is not
/// false, as session managers read it.
class XdgAutostart final : public LoginItems {
 public:
  /// `configHome` is `$XDG_CONFIG_HOME` (or ~/.config); `executable` the absolute program path.
  XdgAutostart(std::string configHome, std::string appId, std::string executable);

  [[nodiscard]] bool enabled() override;
  bool registerItem(std::string& error) override;
  bool unregisterItem(std::string& error) override;

  [[nodiscard]] const std::string& path() const { return path_; }
  /// The entry's text.
  [[nodiscard]] std::string entryText() const;

 private:
  std::string dir_;
  std::string path_;
  std::string executable_;
};

/// `$XDG_CONFIG_HOME`, else `~/.config`.
[[nodiscard]] std::string configHome();
/// The absolute path of the running program (/proc/self/exe).
[[nodiscard]] std::string executablePath();

}  // namespace tarry::platform::os
