#pragma once

#include "platform/gnome/gnome_shell.h"
#include "platform/hud_panel.h"

#include <nlohmann/json.hpp>

#include <memory>

class QTimer;

namespace tarry::platform::gnome {

/// The HUD's layout as the extension reads it (frames from the lower-left corners, as given).
[[nodiscard]] nlohmann::json hudLayoutJson(const HudLayout& layout);

/// The HUD on GNOME: drawn by Tarry's Shell extension (Mutter gives programs no layer above
/// other windows, and a window of this program would take the focus from the guarded app). Every
/// call is forwarded; the extension decides nothing. The calls made at one time go in one message,
/// sent at once when the panel is shown or hidden, else when the main loop next turns, so the
/// Shell never paints a panel half set. A fade's completion runs here, on the main loop, when its
/// time is up.
class GnomeHudPanel final : public HudPanel {
 public:
  explicit GnomeHudPanel(GnomeShell& shell);
  ~GnomeHudPanel() override;

  void apply(const HudLayout& layout) override;
  void setAlpha(double alpha) override;
  void animateAlpha(double alpha, double seconds, std::function<void()> completion) override;
  void setOrigin(Point origin) override;
  void orderFront() override;
  void orderOut() override;

 private:
  void send(nlohmann::json state);
  void flush();
  void stopFade();

  GnomeShell& shell_;
  double height_ = 0;
  std::optional<Point> origin_;
  std::unique_ptr<QTimer> fade_;
  std::unique_ptr<QTimer> flush_;
  nlohmann::json pending_ = nlohmann::json::array();
  std::function<void()> completion_;
};

}  // namespace tarry::platform::gnome
