#pragma once

#include "platform/workspace.h"

#include <optional>
#include <string>
#include <vector>

namespace tarry::platform {

/// The fixed texts of the App Rules window and the items of its pop-ups.
struct AppListTexts {
  std::string title;
  std::string subtitle;
  /// Label in front of the protect pop-up ("Protect:").
  std::string protectLabel;
  /// Items of the protect pop-up; empty = the window has no protect row.
  std::vector<std::string> protectItems;
  /// Items of every row's rule pop-up.
  std::vector<std::string> ruleTitles;
  /// Items of every row's idle pop-up; empty = the rows have no idle pop-up.
  std::vector<std::string> idleTitles;
  std::string addTitle;
};

/// One application row.
struct AppListRow {
  /// NOTE: also the identifier of the row's pop-ups; actions name the row by it.
  std::string bundleID;
  std::string name;
  Icon icon;
  /// Selected item of the rule pop-up.
  int ruleIndex = 0;
  /// Selected item of the idle pop-up. When `idleExtraTitle` is set, the pop-up shows that title
  /// as one more item after `idleTitles` and selects it (a stored value the table does not offer).
  int idleIndex = 0;
  std::string idleExtraTitle;

  friend bool operator==(const AppListRow&, const AppListRow&) = default;
};

/// What the user may choose in the application file panel.
struct ApplicationFileRequest {
  std::string directory;
  /// Glob pattern of the files offered ("*.desktop").
  std::string pattern;
  /// Text of the accept button.
  std::string prompt;
};

/// What the App Rules window reports; the presenter implements it.
class AppListActions {
 public:
  AppListActions() = default;
  AppListActions(const AppListActions&) = delete;
  AppListActions& operator=(const AppListActions&) = delete;
  virtual ~AppListActions() = default;

  /// The user chose item `index` of the rule pop-up of the row `bundleID` (-1 = none).
  virtual void pick(const std::string& bundleID, int index) = 0;
  /// The user chose item `index` of the idle pop-up of the row `bundleID`.
  virtual void pickIdle(const std::string& bundleID, int index) = 0;
  /// The user chose item `index` of the protect pop-up.
  virtual void protectChanged(int index) = 0;
  /// The user pressed the add button.
  virtual void addApp() = 0;
};

/// The App Rules window. It draws what it is told and reports choices to its actions at once.
class AppListView {
 public:
  AppListView() = default;
  AppListView(const AppListView&) = delete;
  AppListView& operator=(const AppListView&) = delete;
  virtual ~AppListView() = default;

  /// Where choices go from now on; null = nowhere.
  virtual void setActions(AppListActions* actions) = 0;
  /// Sets the window's texts and pop-up items.
  virtual void setTexts(const AppListTexts& texts) = 0;
  /// Selects an item of the protect pop-up.
  virtual void setProtectIndex(int index) = 0;
  /// Replaces every row with these, in this order.
  virtual void setRows(const std::vector<AppListRow>& rows) = 0;
  /// Shows the window and brings it to the front.
  virtual void present() = 0;
  /// Lets the user choose one application file; nothing when cancelled.
  [[nodiscard]] virtual std::optional<std::string> chooseApplicationFile(const ApplicationFileRequest& request) = 0;
};

}  // namespace tarry::platform
