#pragma once

#include "platform/gnome/gnome_shell.h"
#include "platform/status_item.h"

#include <nlohmann/json.hpp>

#include <QObject>

#include <array>
#include <functional>
#include <memory>
#include <string>
#include <vector>

class QDBusServiceWatcher;
class QTimer;

namespace tarry::platform::gnome {

/// The words the extension uses for the menu's rows ("header", "pauseFor15", …).
[[nodiscard]] const char* menuRowWord(MenuRow row);
/// The top bar's symbolic icon (shipped with the extension) for the status item's icon: on, off or
/// paused; empty while the item has none.
[[nodiscard]] std::string topBarSymbol(const std::string& icon);
/// The menu as the extension draws it: rows in order with their states, the recents, the symbolic
/// icon and the badge (today's count, or nothing).
[[nodiscard]] nlohmann::json statusMenuJson(const std::array<MenuRowState, kMenuRowCount>& rows,
                                            const std::vector<RecentRow>& recents, const std::string& symbol,
                                            const StatusBadge& badge, bool shown);

/// The status item on GNOME: stock GNOME Shell has no tray, so where no StatusNotifier host is on
/// the bus the extension shows Tarry's icon and whole menu in the top bar, drawn from what the
/// status-menu logic decides (the icon as a symbolic one, which the Shell paints in the bar's
/// colours, with today's count beside it); choices come back over the bus. With a host (the AppIndicator
/// extension) the usual tray item (`tray`, which this forwards everything to) is used alone.
class GnomeStatusItem final : public QObject, public StatusItemView {
  Q_OBJECT

 public:
  GnomeStatusItem(GnomeShell& shell, std::unique_ptr<StatusItemView> tray);
  ~GnomeStatusItem() override;

  void setActions(StatusMenuActions* actions) override;
  void setItemShown(bool shown, const std::string& accessibleName) override;
  void setIcon(const std::string& name) override;
  void setBadge(const StatusBadge& badge) override;
  void setRow(MenuRow row, const MenuRowState& state) override;
  void setRecents(const std::vector<RecentRow>& rows) override;

  /// True while the item is in the top bar (no tray host).
  [[nodiscard]] bool inTopBar() const { return shown_ && !hostPresent_ && shell_.extensionRunning(); }

 private Q_SLOTS:
  void chose(const QString& word);
  void reopen(const QString& path);

 private:
  void scheduleSend();
  void send();

  GnomeShell& shell_;
  std::unique_ptr<StatusItemView> tray_;
  StatusMenuActions* actions_ = nullptr;
  std::array<MenuRowState, kMenuRowCount> rows_{};
  std::vector<RecentRow> recents_;
  std::string icon_;
  StatusBadge badge_;
  bool shown_ = false;
  bool hostPresent_ = false;
  QDBusServiceWatcher* hosts_ = nullptr;
  QTimer* pending_ = nullptr;
};

}  // namespace tarry::platform::gnome
