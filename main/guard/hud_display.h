#pragma once

#include "platform/workspace.h"

#include <string>
#include <vector>

namespace tarry::guard {

/// What the guard (and every other part that shows a banner) asks of the HUD.
class HudDisplay {
 public:
  HudDisplay() = default;
  HudDisplay(const HudDisplay&) = delete;
  HudDisplay& operator=(const HudDisplay&) = delete;
  virtual ~HudDisplay() = default;

  /// Shows the hold layout: title, icon, an empty meter for a hold of `duration` seconds.
  virtual void show(const std::string& title, const platform::Icon& icon, double duration) = 0;
  /// Refreshes meter, time and percentage.
  virtual void update(double elapsed, double duration) = 0;
  /// Replaces the title by the reasons line.
  virtual void setReasons(const std::vector<std::string>& reasons) = 0;
  /// Shows a message that hides itself after `seconds`.
  virtual void flash(const std::string& message, const platform::Icon& icon, double seconds) = 0;
  /// Cancels any pending hide and orders the panel out at once, with no fade.
  virtual void hideNow() = 0;
};

}  // namespace tarry::guard
