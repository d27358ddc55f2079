#pragma once

#include "platform/hud_panel.h"

namespace tarry::guard {

/// The system colours of the meter, as the desktop's light look shows them.
/// NOTE: fixed values, equal to the system green #34C759, yellow #FFCC00 and red #FF3B30 of the
/// light appearance, so the meter reads the same on every desktop theme.
inline constexpr platform::Color kSystemGreen{52 / 255.0, 199 / 255.0, 89 / 255.0, 1};
inline constexpr platform::Color kSystemYellow{255 / 255.0, 204 / 255.0, 0 / 255.0, 1};
inline constexpr platform::Color kSystemRed{255 / 255.0, 59 / 255.0, 48 / 255.0, 1};
/// Text colours of the light look: the label colour is black at 85 %, the secondary one at 50 %.
inline constexpr platform::Color kLabelColor{0, 0, 0, 0.85};
inline constexpr platform::Color kSecondaryLabelColor{0, 0, 0, 0.5};

/// The hold meter: a rounded track and a rounded fill of `value` (0 … 1) in `tint`.
class MeterBar final {
 public:
  explicit MeterBar(platform::Rect frame) : frame_(frame) {}

  /// The filled fraction; 0 draws the track alone.
  double value = 0;
  /// Colour of the fill.
  platform::Color tint = kSystemGreen;

  [[nodiscard]] const platform::Rect& frame() const { return frame_; }
  /// What the view draws: the track over the whole bounds in the label colour at `trackAlpha`,
  /// and the fill from the left edge, never narrower than the bar is high, so even the smallest
  /// progress shows as a round dot rather than a sliver.
  [[nodiscard]] platform::HudMeter drawing(double trackAlpha, bool visible) const;

 private:
  platform::Rect frame_;
};

}  // namespace tarry::guard
