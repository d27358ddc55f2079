#pragma once

#include "platform/app_list_view.h"

#include <QWidget>

#include <vector>

class QComboBox;
class QLabel;
class QPushButton;
class QScrollArea;
class QVBoxLayout;

namespace tarry::platform::qt {

/// The App Rules window: a subtitle, the protect pop-up, a scrolling list of app rows (icon,
/// name, rule pop-up, idle pop-up) and the add button. Every choice goes to the actions at once.
/// NOTE: closing only hides it; the owner keeps it for the next opening.
class QtAppListWindow final : public QWidget, public AppListView {
  Q_OBJECT

 public:
  explicit QtAppListWindow(QWidget* parent = nullptr);

  void setActions(AppListActions* actions) override { actions_ = actions; }
  void setTexts(const AppListTexts& texts) override;
  void setProtectIndex(int index) override;
  void setRows(const std::vector<AppListRow>& rows) override;
  void present() override;
  [[nodiscard]] std::optional<std::string> chooseApplicationFile(const ApplicationFileRequest& request) override;

  /// Icon edge in the rows, in device-independent pixels.
  static constexpr int iconSize = 24;

 private:
  [[nodiscard]] QWidget* makeRow(const AppListRow& row);

  AppListActions* actions_ = nullptr;
  AppListTexts texts_;
  QLabel* subtitle_ = nullptr;
  QWidget* protectRow = nullptr;
  QLabel* protectLabel_ = nullptr;
  QComboBox* protectBox = nullptr;
  QScrollArea* scrollView = nullptr;
  /// The rows, top to bottom, followed by a stretch.
  QVBoxLayout* list = nullptr;
  QPushButton* addButton_ = nullptr;
  /// Scroll position kept across a rebuild of the rows.
  int scrollTop = 0;
  std::vector<QWidget*> rows_;
};

}  // namespace tarry::platform::qt
