#include "platform/qt/qt_app_list_window.h"

#include "platform/qt/qt_convert.h"

#include <QComboBox>
#include <QFileDialog>
#include <QHBoxLayout>
#include <QLabel>
#include <QPixmap>
#include <QPushButton>
#include <QScrollArea>
#include <QScrollBar>
#include <QVBoxLayout>

namespace tarry::platform::qt {

QtAppListWindow::QtAppListWindow(QWidget* parent) : QWidget(parent, Qt::Window) {
  auto* outer = new QVBoxLayout(this);
  outer->setContentsMargins(24, 20, 24, 20);
  outer->setSpacing(14);

  subtitle_ = new QLabel(this);
  subtitle_->setWordWrap(true);
  outer->addWidget(subtitle_);

  protectRow = new QWidget(this);
  auto* protectLayout = new QHBoxLayout(protectRow);
  protectLayout->setContentsMargins(0, 0, 0, 0);
  protectLayout->setSpacing(8);
  protectLabel_ = new QLabel(protectRow);
  protectBox = new QComboBox(protectRow);
  protectBox->setObjectName(QStringLiteral("protect"));
  protectLayout->addWidget(protectLabel_);
  protectLayout->addWidget(protectBox);
  protectLayout->addStretch(1);
  outer->addWidget(protectRow);
  // `activated`, not `currentIndexChanged`: choosing the item already shown is a choice too, and
  // only the user's choices may reach the actions.
  connect(protectBox, &QComboBox::activated, this, [this](int index) {
    if (actions_ != nullptr) actions_->protectChanged(index);
  });

  scrollView = new QScrollArea(this);
  scrollView->setWidgetResizable(true);
  scrollView->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
  auto* content = new QWidget(scrollView);
  list = new QVBoxLayout(content);
  list->setContentsMargins(8, 8, 8, 8);
  list->setSpacing(8);
  list->addStretch(1);
  scrollView->setWidget(content);
  outer->addWidget(scrollView, 1);

  auto* bottom = new QHBoxLayout();
  addButton_ = new QPushButton(this);
  addButton_->setObjectName(QStringLiteral("add"));
  bottom->addWidget(addButton_);
  bottom->addStretch(1);
  outer->addLayout(bottom);
  connect(addButton_, &QPushButton::clicked, this, [this] {
    if (actions_ != nullptr) actions_->addApp();
  });

  resize(560, 420);
}

void QtAppListWindow::setTexts(const AppListTexts& texts) {
  texts_ = texts;
  setWindowTitle(toQString(texts.title));
  subtitle_->setText(toQString(texts.subtitle));
  protectLabel_->setText(toQString(texts.protectLabel));
  protectBox->clear();
  for (const std::string& item : texts.protectItems) protectBox->addItem(toQString(item));
  protectRow->setVisible(!texts.protectItems.empty());
  addButton_->setText(toQString(texts.addTitle));
}

void QtAppListWindow::setProtectIndex(int index) { protectBox->setCurrentIndex(index); }

QWidget* QtAppListWindow::makeRow(const AppListRow& row) {
  const QString bundleID = toQString(row.bundleID);
  auto* widget = new QWidget();
  auto* layout = new QHBoxLayout(widget);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->setSpacing(8);

  auto* icon = new QLabel(widget);
  icon->setFixedSize(iconSize, iconSize);
  const qreal ratio = devicePixelRatioF();
  const int pixels = qRound(iconSize * ratio);
  const QImage image = toQImage(row.icon, pixels);
  if (!image.isNull()) {
    QPixmap pixmap = QPixmap::fromImage(image.scaled(pixels, pixels, Qt::KeepAspectRatio, Qt::SmoothTransformation));
    pixmap.setDevicePixelRatio(ratio);
    icon->setPixmap(pixmap);
  }
  icon->setAlignment(Qt::AlignCenter);
  layout->addWidget(icon);

  auto* name = new QLabel(toQString(row.name), widget);
  name->setObjectName(QStringLiteral("name:") + bundleID);
  name->setToolTip(bundleID);
  layout->addWidget(name, 1);

  auto* rule = new QComboBox(widget);
  // NOTE: the rule pop-up carries the row's bundle identifier as its name.
  rule->setObjectName(bundleID);
  for (const std::string& title : texts_.ruleTitles) rule->addItem(toQString(title));
  rule->setCurrentIndex(row.ruleIndex);
  connect(rule, &QComboBox::activated, this, [this, id = row.bundleID](int index) {
    if (actions_ != nullptr) actions_->pick(id, index);
  });
  layout->addWidget(rule);

  if (!texts_.idleTitles.empty()) {
    auto* idle = new QComboBox(widget);
    idle->setObjectName(QStringLiteral("idle:") + bundleID);
    for (const std::string& title : texts_.idleTitles) idle->addItem(toQString(title));
    if (!row.idleExtraTitle.empty()) idle->addItem(toQString(row.idleExtraTitle));
    idle->setCurrentIndex(row.idleIndex);
    connect(idle, &QComboBox::activated, this, [this, id = row.bundleID](int index) {
      if (actions_ != nullptr) actions_->pickIdle(id, index);
    });
    layout->addWidget(idle);
  }
  return widget;
}

void QtAppListWindow::setRows(const std::vector<AppListRow>& rows) {
  scrollTop = scrollView->verticalScrollBar()->value();
  for (QWidget* old : rows_) {
    // Deleted later: the rebuild may run inside a signal of one of these rows' pop-ups.
    list->removeWidget(old);
    old->hide();
    old->setParent(nullptr);
    old->deleteLater();
  }
  rows_.clear();
  for (const AppListRow& row : rows) {
    QWidget* widget = makeRow(row);
    // Before the trailing stretch.
    list->insertWidget(list->count() - 1, widget);
    rows_.push_back(widget);
  }
  list->activate();
  scrollView->widget()->adjustSize();
  scrollView->verticalScrollBar()->setValue(scrollTop);
}

void QtAppListWindow::present() {
  show();
  raise();
  activateWindow();
}

std::optional<std::string> QtAppListWindow::chooseApplicationFile(const ApplicationFileRequest& request) {
  QFileDialog dialog(this, QString(), toQString(request.directory));
  dialog.setObjectName(QStringLiteral("applicationFile"));
  dialog.setNameFilter(toQString(request.pattern));
  dialog.setFileMode(QFileDialog::ExistingFile);
  dialog.setAcceptMode(QFileDialog::AcceptOpen);
  dialog.setLabelText(QFileDialog::Accept, toQString(request.prompt));
  if (dialog.exec() != QDialog::Accepted) return std::nullopt;
  const QStringList files = dialog.selectedFiles();
  if (files.isEmpty()) return std::nullopt;
  return toStdString(files.front());
}

}  // namespace tarry::platform::qt
