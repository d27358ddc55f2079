#include "platform/qt/qt_stats_window.h"

#include "platform/qt/qt_convert.h"
#include "platform/qt/qt_window_raise.h"

#include <QComboBox>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QKeySequence>
#include <QLabel>
#include <QPushButton>
#include <QShortcut>
#include <QVBoxLayout>

namespace tarry::platform::qt {

QtStatsWindow::QtStatsWindow(QWidget* parent) : QWidget(parent, Qt::Window) {
  setObjectName(QStringLiteral("statistics"));
  auto* outer = new QVBoxLayout(this);
  outer->setContentsMargins(24, 20, 24, 20);
  outer->setSpacing(14);

  grid_ = new QGridLayout();
  grid_->setHorizontalSpacing(26);
  grid_->setVerticalSpacing(9);
  for (int c = 0; c < 3; ++c) {
    heads_[static_cast<std::size_t>(c)] = new QLabel(this);
    QFont bold = heads_[static_cast<std::size_t>(c)]->font();
    bold.setBold(true);
    heads_[static_cast<std::size_t>(c)]->setFont(bold);
    heads_[static_cast<std::size_t>(c)]->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    grid_->addWidget(heads_[static_cast<std::size_t>(c)], 0, c + 1);
  }
  grid_->setColumnStretch(0, 1);
  outer->addLayout(grid_);

  auto* info = new QVBoxLayout();
  info->setSpacing(8);
  periodInfo_ = new QLabel(this);
  periodInfo_->setObjectName(QStringLiteral("periodInfo"));
  allInfo_ = new QLabel(this);
  allInfo_->setObjectName(QStringLiteral("allInfo"));
  for (QLabel* label : {periodInfo_, allInfo_}) {
    label->setTextInteractionFlags(Qt::TextSelectableByMouse);
    info->addWidget(label);
  }
  outer->addLayout(info);
  outer->addStretch(1);

  auto* autoRow = new QHBoxLayout();
  autoRow->setSpacing(8);
  autoLabel_ = new QLabel(this);
  autoBox_ = new QComboBox(this);
  autoBox_->setObjectName(QStringLiteral("auto"));
  autoRow->addWidget(autoLabel_);
  autoRow->addWidget(autoBox_);
  autoRow->addStretch(1);
  outer->addLayout(autoRow);
  connect(autoBox_, &QComboBox::activated, this, [this](int index) {
    if (actions_ != nullptr) actions_->autoChanged(index);
  });

  auto* buttons = new QHBoxLayout();
  buttons->setSpacing(8);
  newPeriod_ = new QPushButton(this);
  newPeriod_->setObjectName(QStringLiteral("newPeriod"));
  copy_ = new QPushButton(this);
  copy_->setObjectName(QStringLiteral("copy"));
  buttons->addWidget(newPeriod_);
  buttons->addStretch(1);
  buttons->addWidget(copy_);
  outer->addLayout(buttons);
  connect(newPeriod_, &QPushButton::clicked, this, [this] {
    if (actions_ != nullptr) actions_->resetPeriod();
  });
  connect(copy_, &QPushButton::clicked, this, [this] {
    if (actions_ != nullptr) actions_->copyStats();
  });

  auto* closeShortcut = new QShortcut(QKeySequence::Close, this);
  connect(closeShortcut, &QShortcut::activated, this, &QWidget::close);
  resize(kWidth, kHeight);
}

void QtStatsWindow::setTexts(const StatsTexts& texts) {
  setWindowTitle(toQString(texts.title));
  for (std::size_t c = 0; c < 3; ++c) heads_[c]->setText(toQString(texts.columnHeads[c]));
  for (std::size_t r = titles_.size(); r < texts.metricTitles.size(); ++r) {
    auto* title = new QLabel(this);
    titles_.push_back(title);
    grid_->addWidget(title, static_cast<int>(r) + 1, 0);
    std::array<QLabel*, 3> row{};
    for (std::size_t c = 0; c < 3; ++c) {
      row[c] = new QLabel(this);
      row[c]->setObjectName(QStringLiteral("cell%1.%2").arg(r).arg(c));
      row[c]->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
      grid_->addWidget(row[c], static_cast<int>(r) + 1, static_cast<int>(c) + 1);
    }
    cells_.push_back(row);
  }
  for (std::size_t r = 0; r < titles_.size(); ++r) {
    titles_[r]->setText(r < texts.metricTitles.size() ? toQString(texts.metricTitles[r]) : QString());
  }
  autoLabel_->setText(toQString(texts.autoLabel));
  autoBox_->clear();
  for (const std::string& item : texts.autoItems) autoBox_->addItem(toQString(item));
  newPeriod_->setText(toQString(texts.newPeriodTitle));
  copy_->setText(toQString(texts.copyTitle));
}

void QtStatsWindow::setFigures(const StatsFigures& figures) {
  for (std::size_t r = 0; r < cells_.size() && r < figures.cells.size(); ++r) {
    for (std::size_t c = 0; c < 3; ++c) cells_[r][c]->setText(toQString(figures.cells[r][c]));
  }
  periodInfo_->setText(toQString(figures.periodInfo));
  allInfo_->setText(toQString(figures.allInfo));
  autoBox_->setCurrentIndex(figures.autoIndex);
}

void QtStatsWindow::present() {
  resize(kWidth, kHeight);
  bringForward(this);
}

void QtStatsWindow::hideEvent(QHideEvent* event) {
  if (actions_ != nullptr) actions_->windowWillClose();
  QWidget::hideEvent(event);
}

}  // namespace tarry::platform::qt
