#include "platform/qt/qt_progress_window.h"

#include "platform/qt/qt_convert.h"

#include <QDialog>
#include <QFont>
#include <QHBoxLayout>
#include <QIcon>
#include <QImage>
#include <QLabel>
#include <QPixmap>
#include <QProgressBar>
#include <QPushButton>
#include <QVBoxLayout>

#include <cmath>

namespace tarry::platform::qt {

QtProgressWindow::QtProgressWindow() : dialog_(std::make_unique<QDialog>()) {
  dialog_->setWindowTitle(QStringLiteral("Tarry"));
  if (const QImage icon = toQImage(Icon{"tarry", 0, 0, nullptr}, 64); !icon.isNull()) {
    dialog_->setWindowIcon(QIcon(QPixmap::fromImage(icon)));
  }
  dialog_->setMinimumWidth(420);
  auto* layout = new QVBoxLayout(dialog_.get());
  title_ = new QLabel(dialog_.get());
  QFont bold = title_->font();
  bold.setBold(true);
  title_->setFont(bold);
  bar_ = new QProgressBar(dialog_.get());
  bar_->setRange(0, 1000);
  bar_->setTextVisible(false);
  detail_ = new QLabel(dialog_.get());
  cancel_ = new QPushButton(QStringLiteral("Cancel"), dialog_.get());
  auto* buttons = new QHBoxLayout;
  buttons->addStretch(1);
  buttons->addWidget(cancel_);
  layout->addWidget(title_);
  layout->addWidget(bar_);
  layout->addWidget(detail_);
  layout->addLayout(buttons);
  // Cancel, Escape and the window's close button all cancel.
  QObject::connect(dialog_.get(), &QDialog::rejected, dialog_.get(), [this] {
    if (onCancel_) onCancel_();
  });
  QObject::connect(cancel_, &QPushButton::clicked, dialog_.get(), &QDialog::reject);
}

QtProgressWindow::~QtProgressWindow() = default;

void QtProgressWindow::show(const std::string& title, std::function<void()> cancel) {
  onCancel_ = std::move(cancel);
  title_->setText(toQString(title));
  detail_->clear();
  bar_->setRange(0, 0);
  cancel_->setEnabled(true);
  dialog_->show();
  dialog_->raise();
  dialog_->activateWindow();
}

void QtProgressWindow::update(const std::string& text, double fraction) {
  detail_->setText(toQString(text));
  if (fraction < 0 || !std::isfinite(fraction)) {
    bar_->setRange(0, 0);  // busy
  } else {
    bar_->setRange(0, 1000);
    bar_->setValue(static_cast<int>(std::lround(std::min(fraction, 1.0) * 1000)));
  }
}

void QtProgressWindow::setCancellable(bool cancellable) { cancel_->setEnabled(cancellable); }

void QtProgressWindow::close() {
  onCancel_ = nullptr;
  dialog_->hide();
}

}  // namespace tarry::platform::qt
