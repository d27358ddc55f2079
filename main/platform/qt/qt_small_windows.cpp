#include "platform/qt/qt_small_windows.h"

#include "platform/qt/qt_convert.h"
#include "platform/qt/qt_hud_panel.h"
#include "platform/qt/qt_window_raise.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QKeySequence>
#include <QLabel>
#include <QPixmap>
#include <QShortcut>
#include <QVBoxLayout>

namespace tarry::platform::qt {

QtAboutWindow::QtAboutWindow(QWidget* parent) : QWidget(parent, Qt::Window) {
  registerShippedIcons();
  setObjectName(QStringLiteral("about"));
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(32, 24, 32, 24);
  layout->setSpacing(8);
  icon_ = new QLabel(this);
  name_ = new QLabel(this);
  version_ = new QLabel(this);
  description_ = new QLabel(this);
  licence_ = new QLabel(this);
  server_ = new QLabel(this);
  QFont big = name_->font();
  big.setBold(true);
  big.setPointSizeF(big.pointSizeF() * 1.6);
  name_->setFont(big);
  for (QLabel* label : {icon_, name_, version_, description_, licence_, server_}) {
    label->setAlignment(Qt::AlignHCenter);
    label->setWordWrap(label != icon_);
    label->setTextInteractionFlags(label == icon_ ? Qt::NoTextInteraction : Qt::TextSelectableByMouse);
    layout->addWidget(label);
  }
  description_->setObjectName(QStringLiteral("description"));
  licence_->setObjectName(QStringLiteral("licence"));
  server_->setObjectName(QStringLiteral("server"));
  version_->setObjectName(QStringLiteral("version"));
  layout->addStretch(1);
  auto* closeShortcut = new QShortcut(QKeySequence::Close, this);
  connect(closeShortcut, &QShortcut::activated, this, &QWidget::close);
  setFixedWidth(360);
}

void QtAboutWindow::setTexts(const AboutTexts& texts) {
  setWindowTitle(toQString(texts.title));
  constexpr int kIcon = 96;
  const qreal ratio = devicePixelRatioF();
  QPixmap pixmap = QPixmap::fromImage(toQImage(Icon{texts.icon, 0, 0, nullptr}, qRound(kIcon * ratio)));
  pixmap.setDevicePixelRatio(ratio);
  icon_->setPixmap(pixmap);
  name_->setText(toQString(texts.name));
  version_->setText(toQString(texts.version));
  description_->setText(toQString(texts.description));
  licence_->setText(toQString(texts.licence));
  server_->setText(toQString(texts.server));
  server_->setVisible(!texts.server.empty());
  adjustSize();
}

void QtAboutWindow::present() { bringForward(this); }

void QtClipboard::setText(const std::string& text) { QGuiApplication::clipboard()->setText(toQString(text)); }

}  // namespace tarry::platform::qt
