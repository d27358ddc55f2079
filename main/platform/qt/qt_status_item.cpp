#include "platform/qt/qt_status_item.h"

#include "platform/qt/qt_convert.h"
#include "platform/qt/qt_hud_panel.h"

#include <QAction>
#include <QCursor>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusServiceWatcher>
#include <QFont>
#include <QFontMetricsF>
#include <QIconEngine>
#include <QKeySequence>
#include <QMenu>
#include <QPainter>
#include <QPainterPath>
#include <QTimer>

namespace tarry::platform::qt {
namespace {

const QString kWatcherService = QStringLiteral("org.kde.StatusNotifierWatcher");

/// Draws a shipped symbol with an optional count badge at any size. It reports the symbol's name,
/// so a tray host that reads the icon name over D-Bus sees which state the item is in.
class SymbolIconEngine final : public QIconEngine {
 public:
  SymbolIconEngine(QString name, QString badge) : name_(std::move(name)), badge_(std::move(badge)) {}

  void paint(QPainter* painter, const QRect& rect, QIcon::Mode /*mode*/, QIcon::State /*state*/) override {
    const int edge = std::min(rect.width(), rect.height());
    painter->drawImage(QRect(rect.topLeft(), QSize(edge, edge)),
                       toQImage(Icon{toStdString(name_), 0, 0, nullptr}, edge));
    if (badge_.isEmpty()) return;
    painter->save();
    painter->setRenderHint(QPainter::Antialiasing);
    QFont font = painter->font();
    font.setBold(true);
    font.setPixelSize(std::max(6, qRound(edge * 0.46)));
    painter->setFont(font);
    const QFontMetricsF metrics(font);
    const qreal height = std::max<qreal>(7, edge * 0.56);
    const qreal width =
        std::min<qreal>(edge, std::max(height, metrics.horizontalAdvance(badge_) + height * 0.5));
    const QRectF pill(rect.left() + edge - width, rect.top() + edge - height, width, height);
    QPainterPath path;
    path.addRoundedRect(pill, height / 2, height / 2);
    painter->fillPath(path, QColor(0x20, 0x21, 0x24));
    if (edge >= 22) painter->strokePath(path, QPen(QColor(255, 255, 255, 200), 1));
    painter->setPen(Qt::white);
    painter->drawText(pill, Qt::AlignCenter, badge_);
    painter->restore();
  }

  QPixmap pixmap(const QSize& size, QIcon::Mode mode, QIcon::State state) override {
    QPixmap pixmap(size);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    paint(&painter, QRect(QPoint(0, 0), size), mode, state);
    return pixmap;
  }

  QIconEngine* clone() const override { return new SymbolIconEngine(name_, badge_); }
  QString iconName() override { return name_; }
  QString key() const override { return QStringLiteral("tarry-symbol"); }
  QList<QSize> availableSizes(QIcon::Mode /*mode*/, QIcon::State /*state*/) override {
    return {QSize(16, 16), QSize(22, 22), QSize(24, 24), QSize(32, 32), QSize(48, 48), QSize(64, 64)};
  }

 private:
  QString name_;
  QString badge_;
};

}  // namespace

QtStatusItem::QtStatusItem(int waitForHostMs, QObject* parent)
    : QObject(parent), menu_(std::make_unique<QMenu>()), waitForHostMs_(waitForHostMs) {
  registerShippedIcons();
  menu_->setObjectName(QStringLiteral("statusMenu"));
  const auto add = [this](QMenu* menu, MenuRow row) {
    QAction* action = menu->addAction(QString());
    rows_[static_cast<std::size_t>(row)] = action;
    connect(action, &QAction::triggered, this, [this, row] {
      if (actions_ != nullptr) actions_->chose(row);
    });
    return action;
  };
  add(menu_.get(), MenuRow::header)->setEnabled(false);
  add(menu_.get(), MenuRow::counter)->setEnabled(false);
  menu_->addSeparator();
  add(menu_.get(), MenuRow::toggle)->setCheckable(true);

  pauseMenu_ = menu_->addMenu(QString());
  rows_[static_cast<std::size_t>(MenuRow::pause)] = pauseMenu_->menuAction();
  add(pauseMenu_, MenuRow::pauseFor15);
  add(pauseMenu_, MenuRow::pauseFor60);
  add(pauseMenu_, MenuRow::pauseTomorrow);
  pauseMenu_->addSeparator();
  add(pauseMenu_, MenuRow::resume);

  recentMenu_ = menu_->addMenu(QString());
  rows_[static_cast<std::size_t>(MenuRow::recent)] = recentMenu_->menuAction();
  add(menu_.get(), MenuRow::undo);
  menu_->addSeparator();
  add(menu_.get(), MenuRow::stats);
  add(menu_.get(), MenuRow::rules);
  add(menu_.get(), MenuRow::quitOthers);
  menu_->addSeparator();
  add(menu_.get(), MenuRow::settings);
  add(menu_.get(), MenuRow::about);
  add(menu_.get(), MenuRow::checkUpdates);
  menu_->addSeparator();
  add(menu_.get(), MenuRow::quit);

  // NOTE: only refreshes rows in place; the presenter never adds or removes rows here.
  connect(menu_.get(), &QMenu::aboutToShow, this, [this] {
    if (actions_ != nullptr) actions_->menuNeedsUpdate();
  });
}

QtStatusItem::~QtStatusItem() = default;

void QtStatusItem::setItemShown(bool shown, const std::string& accessibleName) {
  accessibleName_ = toQString(accessibleName);
  wanted_ = shown;
  if (!shown) {
    if (waitTimer_ != nullptr) waitTimer_->stop();
    tray_.reset();
    return;
  }
  if (tray_) return;
  QDBusConnection bus = QDBusConnection::sessionBus();
  const bool hostUp = bus.isConnected() && bus.interface() != nullptr &&
                      bus.interface()->isServiceRegistered(kWatcherService).value();
  if (hostUp || !bus.isConnected()) {
    createTray();
    return;
  }
  // Wait for a StatusNotifier host (a panel starting after us), then settle for XEmbed.
  if (watcher_ == nullptr) {
    watcher_ = new QDBusServiceWatcher(kWatcherService, bus, QDBusServiceWatcher::WatchForRegistration, this);
    connect(watcher_, &QDBusServiceWatcher::serviceRegistered, this, [this] {
      if (wanted_ && !tray_) createTray();
    });
    waitTimer_ = new QTimer(this);
    waitTimer_->setSingleShot(true);
    connect(waitTimer_, &QTimer::timeout, this, [this] {
      if (wanted_ && !tray_) createTray();
    });
  }
  waitTimer_->start(waitForHostMs_);
}

void QtStatusItem::createTray() {
  if (waitTimer_ != nullptr) waitTimer_->stop();
  tray_ = std::make_unique<QSystemTrayIcon>();
  tray_->setObjectName(accessibleName_);
  tray_->setContextMenu(menu_.get());
  connect(tray_.get(), &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
    if (reason == QSystemTrayIcon::Trigger) {
      menu_->popup(QCursor::pos());
    } else if (reason == QSystemTrayIcon::DoubleClick && actions_ != nullptr) {
      menu_->hide();
      actions_->iconActivated();
    }
  });
  applyIcon();
  applyToolTip();
}

QIcon QtStatusItem::currentIcon() const {
  return QIcon(new SymbolIconEngine(toQString(icon_), toQString(badge_.text)));
}

void QtStatusItem::applyIcon() {
  if (!tray_ || icon_.empty()) return;
  tray_->setIcon(currentIcon());
  // Shown once it has an icon: an icon-less item would flash as an empty slot in the tray.
  if (!tray_->isVisible()) tray_->show();
}

void QtStatusItem::applyToolTip() {
  if (tray_) tray_->setToolTip(badge_.toolTip.empty() ? accessibleName_ : toQString(badge_.toolTip));
}

void QtStatusItem::setIcon(const std::string& name) {
  icon_ = name;
  applyIcon();
}

void QtStatusItem::setBadge(const StatusBadge& badge) {
  const bool redraw = badge.text != badge_.text;
  badge_ = badge;
  if (redraw) applyIcon();
  applyToolTip();
}

void QtStatusItem::setRow(MenuRow row, const MenuRowState& state) {
  QAction* action = rows_[static_cast<std::size_t>(row)];
  action->setText(toQString(state.title));
  action->setVisible(state.visible);
  action->setEnabled(state.enabled);
  if (action->isCheckable()) action->setChecked(state.checked);
  action->setShortcut(QKeySequence(toQString(state.shortcut)));
}

void QtStatusItem::setRecents(const std::vector<RecentRow>& rows) {
  recents_ = rows;
  while (recentPool_.size() < rows.size()) {
    const std::size_t index = recentPool_.size();
    QAction* action = recentMenu_->addAction(QString());
    connect(action, &QAction::triggered, this, [this, index] {
      if (actions_ == nullptr || index >= recents_.size()) return;
      const RecentRow& row = recents_[index];
      if (row.kind == RecentRow::Kind::reopen) actions_->reopenRecent(row.path);
      if (row.kind == RecentRow::Kind::clear) actions_->clearRecents();
    });
    recentPool_.push_back(action);
  }
  for (std::size_t i = 0; i < recentPool_.size(); ++i) {
    QAction* action = recentPool_[i];
    if (i >= rows.size()) {
      action->setVisible(false);
      continue;
    }
    const RecentRow& row = rows[i];
    action->setSeparator(row.kind == RecentRow::Kind::separator);
    action->setText(toQString(row.title));
    action->setEnabled(row.kind != RecentRow::Kind::placeholder);
    action->setVisible(true);
  }
}

}  // namespace tarry::platform::qt
