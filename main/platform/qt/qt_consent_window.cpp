#include "platform/qt/qt_consent_window.h"

#include "platform/qt/qt_convert.h"

#include <QGuiApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QScreen>
#include <QVBoxLayout>

#include <utility>

namespace tarry::platform::qt {
namespace {

constexpr int kWidth = 480;

}  // namespace

QtConsentWindow::QtConsentWindow()
    : heading_(new QLabel(this)),
      body_(new QLabel(this)),
      link_(new QLabel(this)),
      disagreeButton_(new QPushButton(this)),
      agreeButton_(new QPushButton(this)) {
  setAttribute(Qt::WA_DeleteOnClose, false);
  QFont bold = heading_->font();
  bold.setBold(true);
  bold.setPointSizeF(bold.pointSizeF() * 1.15);
  heading_->setFont(bold);
  heading_->setWordWrap(true);
  body_->setWordWrap(true);
  body_->setTextFormat(Qt::PlainText);
  link_->setOpenExternalLinks(true);
  link_->setTextFormat(Qt::RichText);
  agreeButton_->setDefault(true);
  disagreeButton_->setAutoDefault(false);

  auto* buttons = new QHBoxLayout;
  buttons->addStretch(1);
  buttons->addWidget(disagreeButton_);
  buttons->addWidget(agreeButton_);
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(20, 20, 20, 16);
  layout->setSpacing(12);
  layout->addWidget(heading_);
  layout->addWidget(body_);
  layout->addWidget(link_);
  layout->addLayout(buttons);
  setFixedWidth(kWidth);

  connect(agreeButton_, &QPushButton::clicked, this, [this] {
    if (agree_) agree_();
  });
  connect(disagreeButton_, &QPushButton::clicked, this, [this] {
    if (disagree_) disagree_();
  });
}

void QtConsentWindow::setHandlers(std::function<void()> agree, std::function<void()> disagree) {
  agree_ = std::move(agree);
  disagree_ = std::move(disagree);
}

void QtConsentWindow::present(const ConsentTexts& texts) {
  setWindowTitle(toQString(texts.title));
  heading_->setText(toQString(texts.heading));
  body_->setText(toQString(texts.body));
  if (texts.privacyURL.empty()) {
    link_->hide();
  } else {
    link_->setText(QStringLiteral("<a href=\"%1\">%2</a>")
                       .arg(toQString(texts.privacyURL).toHtmlEscaped(),
                            toQString(texts.privacyLinkText).toHtmlEscaped()));
    link_->show();
  }
  agreeButton_->setText(toQString(texts.agreeButton));
  disagreeButton_->setText(toQString(texts.disagreeButton));
  adjustSize();
  setFixedSize(sizeHint());
  if (!isVisible()) {
    if (const QScreen* screen = QGuiApplication::primaryScreen()) {
      const QRect area = screen->availableGeometry();
      move(area.center() - QPoint(width() / 2, height() / 2));
    }
  }
  show();
  raise();
  activateWindow();
  agreeButton_->setFocus();
}

void QtConsentWindow::dismiss() {
  dismissing_ = true;
  hide();
  dismissing_ = false;
}

void QtConsentWindow::reject() {
  if (dismissing_) return;
  QDialog::reject();
  if (disagree_) disagree_();
}

}  // namespace tarry::platform::qt
