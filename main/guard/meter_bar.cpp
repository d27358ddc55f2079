#include "guard/meter_bar.h"

#include <algorithm>

namespace tarry::guard {

platform::HudMeter MeterBar::drawing(double trackAlpha, bool visible) const {
  const platform::Rect bounds{0, 0, frame_.width, frame_.height};
  const double radius = bounds.height / 2;
  platform::Color track = kLabelColor;
  track.alpha = trackAlpha;

  platform::HudMeter meter;
  meter.visible = visible;
  meter.frame = frame_;
  meter.track = {bounds, radius, track};
  if (value > 0) {
    const double w = value < 1 ? bounds.width * value : bounds.width;
    meter.fill = platform::RoundedRect{{0, 0, std::max(w, bounds.height), bounds.height}, radius, tint};
  }
  return meter;
}

}  // namespace tarry::guard
