#pragma once

#include "guard/hud_display.h"
#include "guard/meter_bar.h"
#include "platform/hud_panel.h"
#include "platform/main_loop.h"
#include "platform/screens.h"

#include <memory>
#include <string>
#include <vector>

namespace tarry::settings {
class Tunables;
}

namespace tarry::guard {

/// The floating panel that shows a hold's progress (icon, title, meter, seconds, percentage) and
/// short messages that fade away by themselves. Decides every text, colour, frame, opacity and
/// timing; the panel only draws. Main thread only.
class HUD final : public HudDisplay {
 public:
  /// The panel, screens, loop and tunables must outlive the HUD. The panel is left hidden.
  HUD(platform::HudPanel& panel, const platform::Screens& screens, platform::MainLoop& loop,
      const settings::Tunables& tunables);
  ~HUD() override;

  void show(const std::string& title, const platform::Icon& icon, double duration) override;
  void update(double elapsed, double duration) override;
  void setReasons(const std::vector<std::string>& reasons) override;
  void flash(const std::string& message, const platform::Icon& icon, double seconds) override;
  void hideNow() override;

  /// What the panel was last told to show.
  [[nodiscard]] platform::HudLayout layout() const;
  /// True from a hold or message being shown until the panel is hidden again (a message's fade-out
  /// included).
  [[nodiscard]] bool onScreen() const { return onScreen_; }

 private:
  void redraw();
  void place();
  void setLabel(const platform::Rect& frame, double fontSize, int maxLines, platform::LineBreak lineBreak,
                std::string text);
  void setMeterVisible(bool visible);

  platform::HudPanel& panel;
  platform::HudImage icon;
  platform::HudText label;
  MeterBar bar;
  bool barVisible_ = false;
  platform::HudText timeLabel;
  platform::HudText pctLabel;
  /// The pending fade-out of a message.
  platform::Scheduled hideWork;
  bool onScreen_ = false;

  const platform::Screens& screens_;
  platform::MainLoop& loop_;
  const settings::Tunables& tunables_;
  // Read once, when the panel is made.
  double cornerRadius_;
  bool shadow_;
  /// Work handed to the loop and the panel holds this weakly and does nothing once the HUD is gone.
  std::shared_ptr<HUD*> self_;
};

}  // namespace tarry::guard
