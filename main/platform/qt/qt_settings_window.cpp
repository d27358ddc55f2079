#include "platform/qt/qt_settings_window.h"

#include "platform/qt/qt_convert.h"
#include "platform/qt/qt_window_raise.h"

#include <QCheckBox>
#include <QComboBox>
#include <QEvent>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QKeySequence>
#include <QLabel>
#include <QPushButton>
#include <QShortcut>
#include <QSignalBlocker>
#include <QSlider>
#include <QTabWidget>
#include <QVBoxLayout>

#include <cmath>

namespace tarry::platform::qt {
namespace {

struct BoolField {
  const char* name;
  bool SettingsControls::*member;
};
struct IntField {
  const char* name;
  int SettingsControls::*member;
};

constexpr BoolField kBools[] = {
    {"enabled", &SettingsControls::enabled},
    {"showMenuBar", &SettingsControls::showMenuBar},
    {"showHUD", &SettingsControls::showHUD},
    {"playSound", &SettingsControls::playSound},
    {"menuCounter", &SettingsControls::menuCounter},
    {"unsavedWarn", &SettingsControls::unsavedWarn},
    {"workHours", &SettingsControls::workHours},
    {"workWeekdays", &SettingsControls::workWeekdays},
    {"micStrict", &SettingsControls::micStrict},
    {"busyGuard", &SettingsControls::busyGuard},
    {"undoQuit", &SettingsControls::undoQuit},
    {"autoUpdate", &SettingsControls::autoUpdate},
    {"launchAtLogin", &SettingsControls::launchAtLogin},
};
constexpr IntField kInts[] = {
    {"styleIndex", &SettingsControls::styleIndex},
    {"workFromIndex", &SettingsControls::workFromIndex},
    {"workToIndex", &SettingsControls::workToIndex},
    {"ramSaverIndex", &SettingsControls::ramSaverIndex},
    {"closeHoldIndex", &SettingsControls::closeHoldIndex},
    {"logoutHoldIndex", &SettingsControls::logoutHoldIndex},
    {"appearanceIndex", &SettingsControls::appearanceIndex},
};

QWidget* row(QWidget* parent, std::initializer_list<QWidget*> widgets) {
  auto* box = new QWidget(parent);
  auto* layout = new QHBoxLayout(box);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->setSpacing(8);
  for (QWidget* w : widgets) layout->addWidget(w);
  layout->addStretch(1);
  return box;
}

}  // namespace

QCheckBox* QtSettingsWindow::check(const char* name) {
  auto* box = new QCheckBox(this);
  box->setObjectName(QString::fromLatin1(name));
  checks_[name] = box;
  connect(box, &QCheckBox::clicked, this, [this] { report(); });
  return box;
}

QComboBox* QtSettingsWindow::popUp(const char* name) {
  auto* box = new QComboBox(this);
  box->setObjectName(QString::fromLatin1(name));
  popUps_[name] = box;
  // `activated`: only the user's choices are changes.
  connect(box, &QComboBox::activated, this, [this] { report(); });
  return box;
}

QPushButton* QtSettingsWindow::button(const char* name) {
  auto* b = new QPushButton(this);
  b->setObjectName(QString::fromLatin1(name));
  buttons_[name] = b;
  connect(b, &QPushButton::clicked, this, [this, id = std::string(name)] {
    if (actions_ != nullptr) actions_->pressed(id);
  });
  return b;
}

QLabel* QtSettingsWindow::label(const char* name) {
  auto* l = new QLabel(this);
  l->setObjectName(QStringLiteral("label:") + QString::fromLatin1(name));
  labels_[name] = l;
  return l;
}

QtSettingsWindow::QtSettingsWindow(QWidget* parent) : QWidget(parent, Qt::Window) {
  setObjectName(QStringLiteral("settings"));
  auto* outer = new QVBoxLayout(this);
  outer->setContentsMargins(20, 16, 20, 16);
  outer->setSpacing(12);

  auto* tabs = new QTabWidget(this);
  tabs->setObjectName(QStringLiteral("tabs"));
  outer->addWidget(tabs, 1);
  const auto page = [&](const char* name) {
    auto* widget = new QWidget(tabs);
    auto* form = new QFormLayout(widget);
    form->setContentsMargins(16, 14, 16, 14);
    form->setVerticalSpacing(10);
    form->setFieldGrowthPolicy(QFormLayout::AllNonFixedFieldsGrow);
    tabs_[name] = widget;
    tabs->addTab(widget, QString());
    return form;
  };

  QFormLayout* general = page("section.general");
  general->addRow(check("enabled"));
  general->addRow(label("styleIndex"), popUp("styleIndex"));
  hold_ = new QSlider(Qt::Horizontal, this);
  hold_->setObjectName(QStringLiteral("holdSeconds"));
  holdValue_ = new QLabel(this);
  holdValue_->setObjectName(QStringLiteral("holdValue"));
  holdValue_->setMinimumWidth(48);
  auto* holdRow = new QWidget(this);
  auto* holdLayout = new QHBoxLayout(holdRow);
  holdLayout->setContentsMargins(0, 0, 0, 0);
  holdLayout->addWidget(hold_, 1);
  holdLayout->addWidget(holdValue_);
  general->addRow(label("holdSeconds"), holdRow);
  connect(hold_, &QSlider::valueChanged, this, [this](int steps) {
    if (actions_ != nullptr) actions_->holdSliderMoved(steps * holdStep_, collect());
  });
  general->addRow(label("closeHoldIndex"), popUp("closeHoldIndex"));
  general->addRow(label("logoutHoldIndex"), popUp("logoutHoldIndex"));
  general->addRow(check("showHUD"));
  general->addRow(check("playSound"));
  general->addRow(check("launchAtLogin"));

  QFormLayout* careful = page("section.careful");
  careful->addRow(check("unsavedWarn"));
  careful->addRow(check("busyGuard"));
  careful->addRow(
      row(this, {check("workHours"), popUp("workFromIndex"), label("workToIndex"), popUp("workToIndex")}));
  careful->addRow(check("workWeekdays"));
  careful->addRow(check("micStrict"));

  QFormLayout* apps = page("section.apps");
  apps->addRow(check("undoQuit"));
  apps->addRow(label("ramSaverIndex"), popUp("ramSaverIndex"));
  apps->addRow(row(this, {button("rules"), button("stats")}));

  QFormLayout* look = page("section.look");
  look->addRow(check("showMenuBar"));
  look->addRow(check("menuCounter"));
  look->addRow(label("appearanceIndex"), popUp("appearanceIndex"));
  look->addRow(row(this, {check("autoUpdate"), button("checkNow")}));

  guardText_ = new QLabel(this);
  guardText_->setObjectName(QStringLiteral("guardStatus"));
  guardText_->setWordWrap(true);
  QFont bold = guardText_->font();
  bold.setBold(true);
  guardText_->setFont(bold);
  guardHelp_ = new QLabel(this);
  guardHelp_->setObjectName(QStringLiteral("guardHelp"));
  guardHelp_->setWordWrap(true);
  outer->addWidget(guardText_);
  outer->addWidget(guardHelp_);

  auto* bottom = new QHBoxLayout();
  bottom->addStretch(1);
  bottom->addWidget(button("reset"));
  outer->addLayout(bottom);

  auto* closeShortcut = new QShortcut(QKeySequence::Close, this);
  connect(closeShortcut, &QShortcut::activated, this, &QWidget::close);
  resize(560, 460);
}

void QtSettingsWindow::setTexts(const SettingsTexts& texts) {
  setWindowTitle(toQString(texts.title));
  const auto text = [&texts](const std::string& name) {
    const auto it = texts.labels.find(name);
    return it == texts.labels.end() ? QString() : toQString(it->second);
  };
  for (auto& [name, box] : checks_) box->setText(text(name));
  for (auto& [name, l] : labels_) l->setText(text(name));
  for (auto& [name, b] : buttons_) b->setText(text(name));
  auto* tabs = findChild<QTabWidget*>(QStringLiteral("tabs"));
  for (auto& [name, widget] : tabs_) tabs->setTabText(tabs->indexOf(widget), text(name));
  for (auto& [name, box] : popUps_) {
    const QSignalBlocker block(box);
    box->clear();
    if (const auto it = texts.items.find(name); it != texts.items.end()) {
      for (const std::string& item : it->second) box->addItem(toQString(item));
    }
  }
  holdStep_ = texts.holdStep > 0 ? texts.holdStep : 0.5;
  const QSignalBlocker block(hold_);
  hold_->setRange(static_cast<int>(std::lround(texts.holdMin / holdStep_)),
                  static_cast<int>(std::lround(texts.holdMax / holdStep_)));
  hold_->setSingleStep(1);
  hold_->setPageStep(2);
}

void QtSettingsWindow::setControls(const SettingsControls& c, const std::string& holdText) {
  for (const BoolField& f : kBools) {
    QCheckBox* box = checks_.at(f.name);
    const QSignalBlocker block(box);
    box->setChecked(c.*f.member);
  }
  for (const IntField& f : kInts) {
    QComboBox* box = popUps_.at(f.name);
    const QSignalBlocker block(box);
    box->setCurrentIndex(c.*f.member);
  }
  {
    const QSignalBlocker block(hold_);
    hold_->setValue(static_cast<int>(std::lround(c.holdSeconds / holdStep_)));
  }
  holdValue_->setText(toQString(holdText));
  // The work-hours range means nothing while work hours are off.
  const bool hours = c.workHours;
  popUps_.at("workFromIndex")->setEnabled(hours);
  popUps_.at("workToIndex")->setEnabled(hours);
  checks_.at("workWeekdays")->setEnabled(hours);
  hold_->setEnabled(c.styleIndex == 0);
}

SettingsControls QtSettingsWindow::collect() const {
  SettingsControls c;
  for (const BoolField& f : kBools) c.*f.member = checks_.at(f.name)->isChecked();
  for (const IntField& f : kInts) c.*f.member = popUps_.at(f.name)->currentIndex();
  c.holdSeconds = hold_->value() * holdStep_;
  return c;
}

void QtSettingsWindow::setGuardStatus(const GuardStatus& status) {
  guardText_->setText(toQString(status.text));
  guardText_->setStyleSheet(status.working ? QString() : QStringLiteral("color: #B3261E;"));
  guardHelp_->setText(toQString(status.help));
  guardHelp_->setVisible(!status.help.empty());
}

void QtSettingsWindow::present() { bringForward(this); }

void QtSettingsWindow::report() {
  if (actions_ != nullptr) actions_->changed(collect());
}

void QtSettingsWindow::changeEvent(QEvent* event) {
  if (event->type() == QEvent::ActivationChange && isActiveWindow() && actions_ != nullptr)
    actions_->activated();
  QWidget::changeEvent(event);
}

}  // namespace tarry::platform::qt
