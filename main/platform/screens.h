#pragma once

#include <optional>
#include <vector>

namespace tarry::platform {

/// A point on the desktop, in points. Desktop coordinates have their origin at the lower-left
/// corner of the main screen and grow up and to the right.
struct Point {
  double x = 0;
  double y = 0;
  friend bool operator==(const Point&, const Point&) = default;
};

/// A rectangle whose (x, y) is its lower-left corner, in the same upward-growing convention as
/// `Point` (desktop coordinates for screens, the owner's own coordinates for views inside a panel).
struct Rect {
  double x = 0;
  double y = 0;
  double width = 0;
  double height = 0;

  [[nodiscard]] double minX() const { return x; }
  [[nodiscard]] double minY() const { return y; }
  [[nodiscard]] double maxX() const { return x + width; }
  [[nodiscard]] double maxY() const { return y + height; }
  [[nodiscard]] double midX() const { return x + width / 2; }
  [[nodiscard]] double midY() const { return y + height / 2; }
  /// Half-open containment: the left and bottom edges belong to the rectangle, the right and top
  /// edges to its neighbours, so a point on a shared edge belongs to exactly one screen.
  [[nodiscard]] bool contains(Point p) const { return p.x >= x && p.x < maxX() && p.y >= y && p.y < maxY(); }
  friend bool operator==(const Rect&, const Rect&) = default;
};

/// The screens of the session and the pointer.
class Screens {
 public:
  Screens() = default;
  Screens(const Screens&) = delete;
  Screens& operator=(const Screens&) = delete;
  virtual ~Screens() = default;

  /// The frame of every screen, in the desktop's order; empty when there is none.
  [[nodiscard]] virtual std::vector<Rect> screenFrames() const = 0;
  /// The frame of the main screen; none when there is no screen at all.
  [[nodiscard]] virtual std::optional<Rect> mainScreenFrame() const = 0;
  /// Where the pointer is now.
  [[nodiscard]] virtual Point pointerLocation() const = 0;
};

}  // namespace tarry::platform
