#pragma once

#include "platform/hud_panel.h"
#include "platform/qt/qt_hud_panel.h"

#include <QTimer>

#include <memory>
#include <string>

namespace tarry::platform::wayland {

/// The HUD panel on a wlroots compositor (sway): the Qt panel draws, and an overlay surface of
/// the layer-shell protocol shows what it drew above every window. The surface has an empty input
/// region (clicks go through to the window below) and never takes the keyboard, which an ordinary
/// Wayland window cannot promise: the compositor would tile it and focus it.
///
/// The surface sits on the compositor's current output, at the panel's origin. While it is
/// shown, the picture is refreshed once a frame (16 ms) and at every change.
class LayerShellHudPanel final : public HudPanel {
 public:
  /// Nothing when the compositor offers no layer shell (`error` says why); use the Qt panel then.
  [[nodiscard]] static std::unique_ptr<LayerShellHudPanel> open(std::string& error);
  ~LayerShellHudPanel() override;

  void apply(const HudLayout& layout) override;
  void setAlpha(double alpha) override;
  void animateAlpha(double alpha, double seconds, std::function<void()> completion) override;
  void setOrigin(Point origin) override;
  void orderFront() override;
  void orderOut() override;

  struct Surface;

 private:
  explicit LayerShellHudPanel(std::unique_ptr<Surface> surface);
  void present();

  qt::QtHudPanel drawer_;
  std::unique_ptr<Surface> surface_;
  QTimer frames_;
  bool shown_ = false;
};

}  // namespace tarry::platform::wayland
