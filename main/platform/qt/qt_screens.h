#pragma once

#include "platform/screens.h"

#include <QPoint>
#include <QRect>
#include <QRectF>

namespace tarry::platform::qt {

// Desktop coordinates grow upward from the lower-left corner of the main screen; Qt's grow downward
// from the top-left corner of the virtual desktop. Both count logical pixels (points).

/// A rectangle in Qt's global coordinates, in desktop coordinates.
[[nodiscard]] Rect toDesktop(const QRectF& qtRect);
/// The top-left corner in Qt's global coordinates of a window `height` high whose lower-left
/// corner is at `origin` in desktop coordinates.
[[nodiscard]] QPointF toQtTopLeft(Point origin, double height);

/// The screens Qt knows, with the pointer from QCursor. The main screen is Qt's primary screen.
class QtScreens final : public Screens {
 public:
  [[nodiscard]] std::vector<Rect> screenFrames() const override;
  [[nodiscard]] std::optional<Rect> mainScreenFrame() const override;
  /// The centre of the pixel under the pointer, so it falls inside exactly one screen.
  [[nodiscard]] Point pointerLocation() const override;
};

}  // namespace tarry::platform::qt
