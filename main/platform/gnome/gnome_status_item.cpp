#include "platform/gnome/gnome_status_item.h"

#include <QDBusConnectionInterface>
#include <QDBusServiceWatcher>
#include <QTimer>

namespace tarry::platform::gnome {
namespace {

constexpr const char* kRowWords[kMenuRowCount] = {
    "header",        "counter",  "toggle", "pause",        "pauseFor15", "pauseFor60",
    "pauseTomorrow", "resume",   "recent", "undo",         "stats",      "rules",
    "quitOthers",    "settings", "about",  "checkUpdates", "quit",
};

constexpr char kWatcher[] = "org.kde.StatusNotifierWatcher";

}  // namespace

const char* menuRowWord(MenuRow row) { return kRowWords[static_cast<int>(row)]; }

std::string topBarSymbol(const std::string& icon) {
  if (icon == "command.circle.fill") return "tarry-on-symbolic";
  if (icon == "command.circle") return "tarry-off-symbolic";
  if (icon == "pause.circle") return "tarry-paused-symbolic";
  return {};
}

nlohmann::json statusMenuJson(const std::array<MenuRowState, kMenuRowCount>& rows,
                              const std::vector<RecentRow>& recents, const std::string& symbol,
                              const StatusBadge& badge, bool shown) {
  nlohmann::json out = {
      {"shown", shown}, {"symbol", symbol}, {"badge", badge.text}, {"toolTip", badge.toolTip}};
  nlohmann::json list = nlohmann::json::array();
  for (int i = 0; i < kMenuRowCount; ++i) {
    const MenuRowState& r = rows[static_cast<std::size_t>(i)];
    list.push_back({{"row", kRowWords[i]},
                    {"title", r.title},
                    {"visible", r.visible},
                    {"enabled", r.enabled},
                    {"checked", r.checked}});
  }
  out["rows"] = list;
  nlohmann::json recentList = nlohmann::json::array();
  for (const RecentRow& r : recents) {
    const char* kind = r.kind == RecentRow::Kind::reopen      ? "reopen"
                       : r.kind == RecentRow::Kind::separator ? "separator"
                       : r.kind == RecentRow::Kind::clear     ? "clear"
                                                              : "placeholder";
    recentList.push_back({{"kind", kind}, {"title", r.title}, {"path", r.path}});
  }
  out["recents"] = recentList;
  return out;
}

GnomeStatusItem::GnomeStatusItem(GnomeShell& shell, std::unique_ptr<StatusItemView> tray)
    : shell_(shell), tray_(std::move(tray)) {
  QDBusConnection bus = QDBusConnection::sessionBus();
  const QString service = QString::fromLatin1(kExtensionBusName);
  const QString path = QString::fromLatin1(kExtensionPath);
  const QString interface = QString::fromLatin1(kExtensionInterface);
  bus.connect(service, path, interface, QStringLiteral("MenuChose"), this, SLOT(chose(QString)));
  bus.connect(service, path, interface, QStringLiteral("MenuReopen"), this, SLOT(reopen(QString)));
  hosts_ = new QDBusServiceWatcher(
      QString::fromLatin1(kWatcher), bus,
      QDBusServiceWatcher::WatchForRegistration | QDBusServiceWatcher::WatchForUnregistration, this);
  const auto update = [this] {
    const QDBusConnectionInterface* names = QDBusConnection::sessionBus().interface();
    hostPresent_ = names && names->isServiceRegistered(QString::fromLatin1(kWatcher)).value();
    scheduleSend();
  };
  QObject::connect(hosts_, &QDBusServiceWatcher::serviceRegistered, this, update);
  QObject::connect(hosts_, &QDBusServiceWatcher::serviceUnregistered, this, update);
  update();
  pending_ = new QTimer(this);
  pending_->setSingleShot(true);
  QObject::connect(pending_, &QTimer::timeout, this, [this] { send(); });
}

GnomeStatusItem::~GnomeStatusItem() {
  shown_ = false;
  send();
}

void GnomeStatusItem::setActions(StatusMenuActions* actions) {
  actions_ = actions;
  tray_->setActions(actions);
}

void GnomeStatusItem::setItemShown(bool shown, const std::string& accessibleName) {
  shown_ = shown;
  tray_->setItemShown(shown, accessibleName);
  scheduleSend();
}

void GnomeStatusItem::setIcon(const std::string& name) {
  icon_ = name;
  tray_->setIcon(name);
  scheduleSend();
}

void GnomeStatusItem::setBadge(const StatusBadge& badge) {
  badge_ = badge;
  tray_->setBadge(badge);
  scheduleSend();
}

void GnomeStatusItem::setRow(MenuRow row, const MenuRowState& state) {
  rows_[static_cast<std::size_t>(row)] = state;
  tray_->setRow(row, state);
  scheduleSend();
}

void GnomeStatusItem::setRecents(const std::vector<RecentRow>& rows) {
  recents_ = rows;
  tray_->setRecents(rows);
  scheduleSend();
}

// Changes come in bursts (a menu refresh sets every row): one message for each burst.
void GnomeStatusItem::scheduleSend() {
  if (pending_ && !pending_->isActive()) pending_->start(0);
}

void GnomeStatusItem::send() {
  const bool inBar = shown_ && !hostPresent_;
  shell_.send(
      QStringLiteral("StatusMenu"),
      {QString::fromStdString(statusMenuJson(rows_, recents_, topBarSymbol(icon_), badge_, inBar).dump())});
}

void GnomeStatusItem::chose(const QString& word) {
  if (!actions_) return;
  const std::string w = word.toStdString();
  if (w == "opening") {
    actions_->menuNeedsUpdate();
    return;
  }
  if (w == "clearRecents") {
    actions_->clearRecents();
    return;
  }
  for (int i = 0; i < kMenuRowCount; ++i) {
    if (w == kRowWords[i]) actions_->chose(static_cast<MenuRow>(i));
  }
}

void GnomeStatusItem::reopen(const QString& path) {
  if (actions_) actions_->reopenRecent(path.toStdString());
}

}  // namespace tarry::platform::gnome
