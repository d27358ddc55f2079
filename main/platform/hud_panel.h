#pragma once

#include "platform/screens.h"
#include "platform/workspace.h"

#include <functional>
#include <optional>
#include <string>

namespace tarry::platform {

/// An sRGB colour, components from 0 to 1, not premultiplied.
struct Color {
  double red = 0;
  double green = 0;
  double blue = 0;
  double alpha = 1;
  friend bool operator==(const Color&, const Color&) = default;
};

enum class FontWeight { regular, semibold, bold };

/// The desktop's user-interface font at a size in points.
struct Font {
  double size = 13;
  FontWeight weight = FontWeight::regular;
  /// Digits of equal width, so a running number does not jitter.
  bool monospacedDigits = false;
  friend bool operator==(const Font&, const Font&) = default;
};

enum class TextAlignment { left, right };

/// What happens to text wider than its frame.
enum class LineBreak {
  /// One line; the end is replaced by an ellipsis.
  truncateTail,
  /// Breaks between words; text beyond `maxLines` is cut and the last line ends in an ellipsis.
  wordWrap,
};

/// A text label. The text is laid out from the top of its frame, inside a 2-point padding at the
/// left and right (the line padding of a desktop text field).
struct HudText {
  bool visible = true;
  /// Points from the panel's lower-left corner.
  Rect frame;
  std::string text;
  Font font;
  Color color;
  TextAlignment alignment = TextAlignment::left;
  int maxLines = 1;
  LineBreak lineBreak = LineBreak::truncateTail;
  friend bool operator==(const HudText&, const HudText&) = default;
};

/// The icon view: the image scaled proportionally up or down to fit its frame, centred in it.
struct HudImage {
  /// Points from the panel's lower-left corner.
  Rect frame;
  Icon image;
  friend bool operator==(const HudImage&, const HudImage&) = default;
};

/// A filled rectangle with round corners.
struct RoundedRect {
  Rect rect;
  double radius = 0;
  Color color;
  friend bool operator==(const RoundedRect&, const RoundedRect&) = default;
};

/// The meter as it is to be drawn: a track and, over it, the fill.
struct HudMeter {
  bool visible = true;
  /// Points from the panel's lower-left corner.
  Rect frame;
  /// Points from the meter's own lower-left corner.
  RoundedRect track;
  /// Points from the meter's own lower-left corner; none when nothing is filled.
  std::optional<RoundedRect> fill;
  friend bool operator==(const HudMeter&, const HudMeter&) = default;
};

/// Everything the panel shows. The panel draws it as given; it decides nothing.
struct HudLayout {
  double width = 330;
  double height = 96;
  double cornerRadius = 0;
  /// A soft shadow around the panel, where the desktop can show one.
  bool shadow = false;
  /// The panel's backdrop, inside its rounded corners.
  Color background;
  // NOTE: drawn in this order, later ones on top.
  HudImage icon;
  HudText label;
  HudMeter bar;
  HudText timeLabel;
  HudText pctLabel;
  friend bool operator==(const HudLayout&, const HudLayout&) = default;
};

/// The floating panel of the HUD: above every window, never focused, never hit by the mouse.
/// Created hidden. Main thread only.
class HudPanel {
 public:
  HudPanel() = default;
  HudPanel(const HudPanel&) = delete;
  HudPanel& operator=(const HudPanel&) = delete;
  virtual ~HudPanel() = default;

  /// Replaces what the panel shows, all at once.
  virtual void apply(const HudLayout& layout) = 0;
  /// Sets the opacity (0 … 1) now; stops an opacity animation, whose completion then never runs.
  virtual void setAlpha(double alpha) = 0;
  /// Animates the opacity from its current value to `alpha` over `seconds`, then runs
  /// `completion` (may be empty) on the main thread. `setAlpha`, another `animateAlpha` or
  /// `orderOut` stops it, and its completion then never runs.
  virtual void animateAlpha(double alpha, double seconds, std::function<void()> completion) = 0;
  /// Moves the panel so that its lower-left corner is at `origin`, in desktop coordinates.
  virtual void setOrigin(Point origin) = 0;
  /// Shows the panel in front of every window without activating the program or taking focus.
  virtual void orderFront() = 0;
  /// Hides the panel at once; stops an opacity animation.
  virtual void orderOut() = 0;
};

}  // namespace tarry::platform
