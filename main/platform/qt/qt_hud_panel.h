#pragma once

#include "platform/hud_panel.h"

#include <QImage>
#include <QRect>

#include <memory>
#include <optional>

class QWidget;

namespace tarry::platform::qt {

class HudWindow;

/// Makes the icons shipped with the program (`:/icons/<name>.svg`) available. Idempotent; the
/// panel calls it itself.
/// NOTE: the icons are compiled into a static library, whose resources the linker would drop
/// unless something refers to them.
void registerShippedIcons();

/// The HUD panel as a Qt window: frameless, above every window, never focused, transparent to
/// the mouse, with rounded corners and a soft shadow where a compositing manager runs.
/// NOTE: construct it on the main thread after the QApplication, once, and keep it.
class QtHudPanel final : public HudPanel {
 public:
  QtHudPanel();
  ~QtHudPanel() override;

  void apply(const HudLayout& layout) override;
  void setAlpha(double alpha) override;
  void animateAlpha(double alpha, double seconds, std::function<void()> completion) override;
  void setOrigin(Point origin) override;
  void orderFront() override;
  void orderOut() override;

  /// Whether windows are composited (translucency, opacity, shadows). Unset: asked of the X
  /// server at every `orderFront` (a compositing manager may come and go); always on elsewhere.
  void setCompositingOverride(std::optional<bool> composited);
  /// The panel drawn as it is now, shadow margin included, on a transparent ground.
  [[nodiscard]] QImage snapshot() const;
  /// Where the panel itself lies in `snapshot` and in the window.
  [[nodiscard]] QRect contentRect() const;
  [[nodiscard]] QWidget* window() const;
  [[nodiscard]] double alpha() const;

 private:
  std::unique_ptr<HudWindow> window_;
};

}  // namespace tarry::platform::qt
