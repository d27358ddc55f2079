#pragma once

#include "platform/hud_panel.h"
#include "platform/main_loop.h"
#include "platform/sim/journal.h"

#include <functional>
#include <optional>
#include <string>

namespace tarry::platform::sim {

/// A panel that remembers what it was told and animates its opacity on the loop's virtual clock.
class SimHudPanel final : public HudPanel {
 public:
  explicit SimHudPanel(MainLoop& loop, Journal* journal = nullptr) : loop_(loop), journal_(journal) {}

  void apply(const HudLayout& layout) override;
  void setAlpha(double alpha) override;
  void animateAlpha(double alpha, double seconds, std::function<void()> completion) override;
  void setOrigin(Point origin) override;
  void orderFront() override;
  void orderOut() override;

  /// The opacity now, part way through an animation when one runs.
  [[nodiscard]] double alpha() const;
  /// True while an opacity animation runs.
  [[nodiscard]] bool animating() const { return animation_.active(); }
  /// The target of the last animation started.
  [[nodiscard]] double animationTarget() const { return to_; }

  std::optional<HudLayout> layout;
  int applyCount = 0;
  bool visible = false;
  std::optional<Point> origin;
  int frontCount = 0;
  int outCount = 0;

 private:
  void note(const std::string& line);
  void stopAnimation();

  MainLoop& loop_;
  Journal* journal_;
  double alpha_ = 1;
  // The running animation: from `from_` at `start_` to `to_` after `seconds_`.
  double from_ = 1;
  double to_ = 1;
  double start_ = 0;
  double seconds_ = 0;
  Scheduled animation_;
};

}  // namespace tarry::platform::sim
