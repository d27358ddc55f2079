#include "platform/qt/qt_convert.h"

#include "platform/qt/qt_hud_panel.h"

#include <QFile>
#include <QIcon>
#include <QPainter>
#include <QSvgRenderer>

namespace tarry::platform::qt {
namespace {

/// The SVG drawn onto a transparent `size` × `size` image.
QImage rendered(QSvgRenderer& renderer, int size) {
  QImage image(size, size, QImage::Format_ARGB32_Premultiplied);
  image.fill(Qt::transparent);
  QPainter painter(&image);
  renderer.render(&painter);
  return image;
}

}  // namespace

QImage toQImage(const Icon& icon, int size) {
  if (icon.argb && icon.width > 0 && icon.height > 0 &&
      icon.argb->size() >= static_cast<std::size_t>(icon.width) * static_cast<std::size_t>(icon.height)) {
    QImage image(icon.width, icon.height, QImage::Format_ARGB32);
    for (int y = 0; y < icon.height; ++y) {
      auto* row = reinterpret_cast<QRgb*>(image.scanLine(y));
      for (int x = 0; x < icon.width; ++x) row[x] = (*icon.argb)[static_cast<std::size_t>(y * icon.width + x)];
    }
    return image;
  }
  if (icon.name.empty()) return {};
  const QString name = toQString(icon.name);
  registerShippedIcons();
  const QString shipped = QStringLiteral(":/icons/%1.svg").arg(name);
  if (QFile::exists(shipped)) {
    QSvgRenderer renderer(shipped);
    return rendered(renderer, size);
  }
  if (name.startsWith('/')) {
    if (name.endsWith(QStringLiteral(".svg"))) {
      QSvgRenderer renderer(name);
      if (renderer.isValid()) return rendered(renderer, size);
    }
    QImage image(name);
    if (!image.isNull()) return image;
  }
  const QIcon themed = QIcon::fromTheme(name);
  if (!themed.isNull()) return themed.pixmap(size, size).toImage();
  return {};
}

}  // namespace tarry::platform::qt
