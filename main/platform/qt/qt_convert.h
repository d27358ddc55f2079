#pragma once

#include "platform/workspace.h"

#include <QImage>
#include <QString>

#include <string>

namespace tarry::platform::qt {

[[nodiscard]] inline QString toQString(const std::string& s) { return QString::fromUtf8(s.data(), static_cast<qsizetype>(s.size())); }
[[nodiscard]] inline std::string toStdString(const QString& s) { return s.toUtf8().toStdString(); }

/// The icon as an image of about `size` × `size` pixels: its pixels when it has them, else the
/// program's own icon of that name (shipped as `:/icons/<name>.svg`), else the icon theme's, else
/// a file at that path. A null image when none is found.
[[nodiscard]] QImage toQImage(const Icon& icon, int size);

}  // namespace tarry::platform::qt
