#pragma once

#include "platform/status_item.h"

#include <QIcon>
#include <QObject>
#include <QSystemTrayIcon>

#include <array>
#include <memory>
#include <vector>

class QAction;
class QDBusServiceWatcher;
class QMenu;
class QTimer;

namespace tarry::platform::qt {

/// The status item: a `QSystemTrayIcon` (a StatusNotifierItem where the desktop runs a
/// StatusNotifierWatcher, the XEmbed tray otherwise) and its `QMenu`, built once. Rows are the
/// same `QAction`s for the life of the process and change in place, so tray hosts that mirror the
/// menu over D-Bus never see it torn down.
///
/// Qt picks StatusNotifierItem or XEmbed once, when the first tray icon is made; a panel that
/// starts a moment after Tarry (autostart) would leave the icon nowhere. So the icon is made as
/// soon as the watcher is on the session bus, or after `waitForHostMs` at the latest.
///
/// Left click opens the menu where the host reports only an activation (XEmbed trays, some
/// StatusNotifier hosts); a double click opens Settings.
class QtStatusItem final : public QObject, public StatusItemView {
  Q_OBJECT

 public:
  explicit QtStatusItem(int waitForHostMs = 5000, QObject* parent = nullptr);
  ~QtStatusItem() override;

  void setActions(StatusMenuActions* actions) override { actions_ = actions; }
  void setItemShown(bool shown, const std::string& accessibleName) override;
  void setIcon(const std::string& name) override;
  void setBadge(const StatusBadge& badge) override;
  void setRow(MenuRow row, const MenuRowState& state) override;
  void setRecents(const std::vector<RecentRow>& rows) override;

  [[nodiscard]] QMenu* menu() const { return menu_.get(); }
  /// The tray icon, or null while it is hidden or still waiting for a tray host.
  [[nodiscard]] QSystemTrayIcon* trayIcon() const { return tray_.get(); }
  [[nodiscard]] QAction* action(MenuRow row) const { return rows_[static_cast<std::size_t>(row)]; }
  [[nodiscard]] const std::vector<QAction*>& recentActions() const { return recentPool_; }
  /// The icon as drawn now (symbol and badge).
  [[nodiscard]] QIcon currentIcon() const;

 private:
  void createTray();
  void applyIcon();
  void applyToolTip();

  StatusMenuActions* actions_ = nullptr;
  std::unique_ptr<QMenu> menu_;
  QMenu* pauseMenu_ = nullptr;
  QMenu* recentMenu_ = nullptr;
  std::array<QAction*, kMenuRowCount> rows_{};
  std::vector<QAction*> recentPool_;
  std::vector<RecentRow> recents_;
  std::unique_ptr<QSystemTrayIcon> tray_;
  QDBusServiceWatcher* watcher_ = nullptr;
  QTimer* waitTimer_ = nullptr;
  int waitForHostMs_;
  bool wanted_ = false;
  QString accessibleName_;
  std::string icon_;
  StatusBadge badge_;
};

}  // namespace tarry::platform::qt
