#include "platform/qt/qt_screens.h"

#include <QCursor>
#include <QGuiApplication>
#include <QScreen>

namespace tarry::platform::qt {
namespace {

/// Qt's y of the desktop's y = 0: the bottom edge of the primary screen.
double flipLine() {
  const QScreen* primary = QGuiApplication::primaryScreen();
  if (primary == nullptr) return 0;
  const QRect g = primary->geometry();
  return g.y() + g.height();
}

}  // namespace

Rect toDesktop(const QRectF& r) { return Rect{r.x(), flipLine() - (r.y() + r.height()), r.width(), r.height()}; }

QPointF toQtTopLeft(Point origin, double height) { return {origin.x, flipLine() - (origin.y + height)}; }

std::vector<Rect> QtScreens::screenFrames() const {
  std::vector<Rect> frames;
  for (const QScreen* screen : QGuiApplication::screens()) frames.push_back(toDesktop(QRectF(screen->geometry())));
  return frames;
}

std::optional<Rect> QtScreens::mainScreenFrame() const {
  const QScreen* primary = QGuiApplication::primaryScreen();
  if (primary == nullptr) return std::nullopt;
  return toDesktop(QRectF(primary->geometry()));
}

Point QtScreens::pointerLocation() const {
  const QPoint p = QCursor::pos();
  return Point{p.x() + 0.5, flipLine() - p.y() - 0.5};
}

}  // namespace tarry::platform::qt
