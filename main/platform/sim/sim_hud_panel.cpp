#include "platform/sim/sim_hud_panel.h"

#include <algorithm>
#include <utility>

namespace tarry::platform::sim {

void SimHudPanel::note(const std::string& line) {
  if (journal_) journal_->add("hud " + line);
}

void SimHudPanel::apply(const HudLayout& newLayout) {
  layout = newLayout;
  ++applyCount;
}

double SimHudPanel::alpha() const {
  if (!animation_.active() || seconds_ <= 0) return alpha_;
  const double t = std::clamp((loop_.uptime() - start_) / seconds_, 0.0, 1.0);
  return from_ + (to_ - from_) * t;
}

void SimHudPanel::stopAnimation() {
  if (!animation_.active()) return;
  alpha_ = alpha();
  animation_.cancel();
}

void SimHudPanel::setAlpha(double value) {
  stopAnimation();
  alpha_ = value;
  note("alpha " + std::to_string(value));
}

void SimHudPanel::animateAlpha(double value, double seconds, std::function<void()> completion) {
  stopAnimation();
  from_ = alpha_;
  to_ = value;
  start_ = loop_.uptime();
  seconds_ = std::max(seconds, 0.0);
  note("fade to " + std::to_string(value) + " over " + std::to_string(seconds_));
  animation_ = loop_.after(seconds_, [this, completion = std::move(completion)] {
    alpha_ = to_;
    if (completion) completion();
  });
}

void SimHudPanel::setOrigin(Point p) {
  origin = p;
  note("origin " + std::to_string(p.x) + " " + std::to_string(p.y));
}

void SimHudPanel::orderFront() {
  visible = true;
  ++frontCount;
  note("front");
}

void SimHudPanel::orderOut() {
  stopAnimation();
  visible = false;
  ++outCount;
  note("out");
}

}  // namespace tarry::platform::sim
