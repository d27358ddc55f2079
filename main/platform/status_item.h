#pragma once

#include <string>
#include <vector>

namespace tarry::platform {

/// The rows of the status menu that act or change. Separators and the fixed order are the view's;
/// every title comes from the presenter.
enum class MenuRow {
  header,         // the protection state in words (disabled)
  counter,        // blocked totals (disabled)
  toggle,         // the protection switch (checkable)
  pause,          // holds the pause submenu
  pauseFor15,     // inside the pause submenu
  pauseFor60,     // inside the pause submenu
  pauseTomorrow,  // inside the pause submenu
  resume,         // inside the pause submenu, after a separator
  recent,         // holds the recently-quit submenu
  undo,
  stats,
  rules,
  quitOthers,
  settings,
  about,
  checkUpdates,
  quit,
};

inline constexpr int kMenuRowCount = static_cast<int>(MenuRow::quit) + 1;

/// How one row looks now.
struct MenuRowState {
  std::string title;
  bool visible = true;
  bool enabled = true;
  /// Shown as checked; only the toggle row is checkable.
  bool checked = false;
  /// Key combination written the Linux way ("Ctrl+,"), or empty.
  std::string shortcut;

  friend bool operator==(const MenuRowState&, const MenuRowState&) = default;
};

/// One row of the recently-quit submenu.
struct RecentRow {
  enum class Kind { reopen, separator, clear, placeholder };
  Kind kind = Kind::reopen;
  std::string title;
  /// What `reopenRecent` receives for a reopen row.
  std::string path;

  friend bool operator==(const RecentRow&, const RecentRow&) = default;
};

/// What the tray item shows beside its icon: trays have no text title, so the counter is a small
/// badge drawn on the icon and a line of the tooltip.
struct StatusBadge {
  /// Drawn on the icon; empty = no badge.
  std::string text;
  std::string toolTip;

  friend bool operator==(const StatusBadge&, const StatusBadge&) = default;
};

/// What the tray item and its menu report; the presenter implements it.
class StatusMenuActions {
 public:
  StatusMenuActions() = default;
  StatusMenuActions(const StatusMenuActions&) = delete;
  StatusMenuActions& operator=(const StatusMenuActions&) = delete;
  virtual ~StatusMenuActions() = default;

  /// The user chose a row (not a recent one).
  virtual void chose(MenuRow row) = 0;
  /// The user chose "Reopen …" of the recently-quit submenu.
  virtual void reopenRecent(const std::string& path) = 0;
  /// The user chose "Clear List".
  virtual void clearRecents() = 0;
  /// The menu is about to open (where the tray host says so).
  virtual void menuNeedsUpdate() = 0;
  /// The icon was activated without opening the menu (hosts that only report a click).
  virtual void iconActivated() = 0;
};

/// The status item in the desktop's tray and its menu. It draws what it is told and reports
/// choices to its actions at once.
class StatusItemView {
 public:
  StatusItemView() = default;
  StatusItemView(const StatusItemView&) = delete;
  StatusItemView& operator=(const StatusItemView&) = delete;
  virtual ~StatusItemView() = default;

  /// Where choices go from now on; null = nowhere.
  virtual void setActions(StatusMenuActions* actions) = 0;
  /// Puts the item into the tray (true) or takes it out (false). The menu outlives both.
  virtual void setItemShown(bool shown, const std::string& accessibleName) = 0;
  /// The icon, by the name of a shipped symbol ("command.circle.fill").
  virtual void setIcon(const std::string& name) = 0;
  virtual void setBadge(const StatusBadge& badge) = 0;
  virtual void setRow(MenuRow row, const MenuRowState& state) = 0;
  /// Replaces the rows of the recently-quit submenu.
  virtual void setRecents(const std::vector<RecentRow>& rows) = 0;
};

}  // namespace tarry::platform
