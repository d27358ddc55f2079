#pragma once

#include "platform/settings_view.h"

#include <QWidget>

#include <map>
#include <string>

class QCheckBox;
class QComboBox;
class QLabel;
class QPushButton;
class QSlider;

namespace tarry::platform::qt {

/// The Settings window: four tabs of controls, the keyboard guard's state with what to do when it
/// is off, and "Reset Settings…". Every control reports at once; Ctrl+W closes the window.
/// NOTE: controls are looked up by the name of their `SettingsControls` field, which is also their
/// object name (tests find them by it).
class QtSettingsWindow final : public QWidget, public SettingsView {
  Q_OBJECT

 public:
  explicit QtSettingsWindow(QWidget* parent = nullptr);

  void setActions(SettingsActions* actions) override { actions_ = actions; }
  void setTexts(const SettingsTexts& texts) override;
  void setControls(const SettingsControls& controls, const std::string& holdText) override;
  void setGuardStatus(const GuardStatus& status) override;
  void present() override;
  [[nodiscard]] bool isVisible() const override { return QWidget::isVisible(); }

  /// What the controls show now.
  [[nodiscard]] SettingsControls collect() const;

 protected:
  void changeEvent(QEvent* event) override;

 private:
  QCheckBox* check(const char* name);
  QComboBox* popUp(const char* name);
  QPushButton* button(const char* name);
  QLabel* label(const char* name);
  void report();

  SettingsActions* actions_ = nullptr;
  std::map<std::string, QCheckBox*> checks_;
  std::map<std::string, QComboBox*> popUps_;
  std::map<std::string, QPushButton*> buttons_;
  std::map<std::string, QLabel*> labels_;
  std::map<std::string, QWidget*> tabs_;
  QSlider* hold_ = nullptr;
  QLabel* holdValue_ = nullptr;
  QLabel* guardText_ = nullptr;
  QLabel* guardHelp_ = nullptr;
  double holdStep_ = 0.5;
};

}  // namespace tarry::platform::qt
