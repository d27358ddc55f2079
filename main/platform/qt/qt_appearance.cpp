#include "platform/qt/qt_appearance.h"

#include <QApplication>
#include <QStyle>

namespace tarry::platform::qt {
namespace {

QPalette darkPalette() {
  QPalette p;
  const QColor window(45, 45, 48);
  const QColor base(30, 30, 32);
  const QColor text(230, 230, 230);
  p.setColor(QPalette::Window, window);
  p.setColor(QPalette::WindowText, text);
  p.setColor(QPalette::Base, base);
  p.setColor(QPalette::AlternateBase, window);
  p.setColor(QPalette::Text, text);
  p.setColor(QPalette::Button, window);
  p.setColor(QPalette::ButtonText, text);
  p.setColor(QPalette::ToolTipBase, base);
  p.setColor(QPalette::ToolTipText, text);
  p.setColor(QPalette::Highlight, QColor(53, 132, 228));
  p.setColor(QPalette::HighlightedText, Qt::white);
  p.setColor(QPalette::Link, QColor(120, 174, 237));
  p.setColor(QPalette::Disabled, QPalette::Text, QColor(128, 128, 128));
  p.setColor(QPalette::Disabled, QPalette::ButtonText, QColor(128, 128, 128));
  p.setColor(QPalette::Disabled, QPalette::WindowText, QColor(128, 128, 128));
  return p;
}

}  // namespace

void QtAppearance::apply(AppearanceMode mode) {
  if (!haveSystem_) {
    system_ = QApplication::palette();
    haveSystem_ = true;
  }
  switch (mode) {
    case AppearanceMode::dark:
      QApplication::setPalette(darkPalette());
      break;
    case AppearanceMode::light:
      QApplication::setPalette(QApplication::style()->standardPalette());
      break;
    case AppearanceMode::system:
      QApplication::setPalette(system_);
      break;
  }
}

}  // namespace tarry::platform::qt
