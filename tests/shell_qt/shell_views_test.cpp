#include "app/about.h"
#include "app/status_menu.h"
#include "platform/qt/qt_convert.h"
#include "platform/qt/qt_settings_window.h"
#include "platform/qt/qt_small_windows.h"
#include "platform/qt/qt_stats_window.h"
#include "platform/qt/qt_status_item.h"
#include "platform/qt/qt_window_shortcuts.h"
#include "platform/sim/memory_defaults_store.h"
#include "platform/sim/sim_alerts.h"
#include "platform/sim/sim_main_loop.h"
#include "platform/sim/sim_services.h"
#include "settings/settings_window.h"
#include "stats/stats_controller.h"

#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QPainter>
#include <QPushButton>
#include <QSlider>
#include <QTest>

#include <gtest/gtest.h>

#include <string>

namespace tarry::platform::qt {
namespace {

using platform::Value;

constexpr double kMarch14 = 1773446400;  // 2026-03-14 00:00:00 UTC

QString png(const char* name) { return QStringLiteral(TARRY_SHELL_PNG_DIR "/") + QString::fromLatin1(name); }

QString text(const QWidget* root, const char* name) {
  const auto* label = root->findChild<QLabel*>(QString::fromLatin1(name));
  return label == nullptr ? QStringLiteral("<missing %1>").arg(QString::fromLatin1(name)) : label->text();
}

class NullClipboard final : public Clipboard {
 public:
  void setText(const std::string& t) override { text = t; }
  std::string text;
};

struct Fixture {
  Fixture() {
    loop.setWallClock(kMarch14 + 9 * 3600);
    store.set("stats.allSince", kMarch14 - 90061);
    store.set("stats.periodSince", kMarch14 + 3600);
  }
  sim::SimMainLoop loop;
  sim::MemoryDefaultsStore store;
  common::Counters counters{store, loop};
  sim::SimAlerts alerts;
};

TEST(ShellViews, StatusMenuRowsChangeInPlaceAndTheIconCarriesItsState) {
  Fixture f;
  auto owned = std::make_unique<QtStatusItem>(0);
  QtStatusItem* item = owned.get();
  std::optional<std::string> undo;
  app::StatusMenuHooks hooks;
  hooks.tapInstalled = [] { return true; };
  hooks.undoTitle = [&undo] { return undo; };
  app::StatusMenu menu(std::move(owned), f.store, f.counters, f.loop, hooks);
  menu.refreshStatus();

  ASSERT_NE(item->trayIcon(), nullptr);
  EXPECT_EQ(item->currentIcon().name(), "command.circle.fill");
  EXPECT_EQ(item->trayIcon()->toolTip(), "Tarry · 0 blocked today");
  EXPECT_EQ(item->action(MenuRow::header)->text(), "Active, hold Ctrl+Q 2s");
  EXPECT_FALSE(item->action(MenuRow::header)->isEnabled());
  EXPECT_TRUE(item->action(MenuRow::toggle)->isChecked());
  EXPECT_EQ(item->action(MenuRow::settings)->shortcut().toString(), "Ctrl+,");
  EXPECT_FALSE(item->action(MenuRow::undo)->isVisible());
  // Top-level order: header, counter, separator, switch, pause, recents, undo, …
  const QList<QAction*> top = item->menu()->actions();
  ASSERT_GE(top.size(), 7);
  EXPECT_EQ(top[3], item->action(MenuRow::toggle));
  EXPECT_EQ(top[4], item->action(MenuRow::pause));
  EXPECT_EQ(top.back()->text(), "Quit Tarry");

  // Clicking the switch turns protection off through the presenter.
  item->action(MenuRow::toggle)->trigger();
  EXPECT_EQ(f.store.get("enabled"), Value(false));
  EXPECT_EQ(item->currentIcon().name(), "command.circle");

  // Recents: the same actions are reused however the list changes.
  f.store.set("recents", Value::parse(R"([{"name":"Mail","path":"/m"},{"name":"Web","path":"/w"}])"));
  undo = "Undo Quit 2 Apps";
  emit item->menu()->aboutToShow();
  const std::vector<QAction*> pool = item->recentActions();
  ASSERT_EQ(pool.size(), 4u);
  EXPECT_EQ(pool[1]->text(), "Reopen Web");
  EXPECT_TRUE(pool[2]->isSeparator());
  EXPECT_EQ(item->action(MenuRow::undo)->text(), "Undo Quit 2 Apps");
  EXPECT_TRUE(item->action(MenuRow::undo)->isVisible());
  pool[3]->trigger();  // Clear List
  EXPECT_EQ(f.store.get("recents"), Value::array());
  EXPECT_EQ(item->recentActions(), pool);
  EXPECT_EQ(pool[0]->text(), "Nothing quit yet");
  EXPECT_FALSE(pool[0]->isEnabled());
  EXPECT_FALSE(pool[1]->isVisible());
  EXPECT_EQ(f.counters.allTime("open.menu"), 1);

  f.counters.add("saved", 3);
  menu.refreshCounterTitle();
  EXPECT_EQ(item->trayIcon()->toolTip(), "Tarry · 3 blocked today");
  item->currentIcon().pixmap(64, 64).save(png("tray_icon_badge.png"));
  item->menu()->ensurePolished();
  item->menu()->adjustSize();
  item->menu()->grab().save(png("tray_menu.png"));

  f.store.set("showMenuBar", false);
  menu.refreshStatus();
  EXPECT_EQ(item->trayIcon(), nullptr);
}

TEST(ShellViews, TrayIconsAreShippedAndDrawnAtPanelSizes) {
  QtStatusItem item(0);  // registers the shipped icons
  // A sheet for a person to look at: each symbol at 16, 22 and 32 px on a light and a dark panel.
  QImage sheet(3 * 3 * 40, 2 * 40, QImage::Format_ARGB32);
  QPainter painter(&sheet);
  painter.fillRect(0, 0, sheet.width(), 40, QColor(0xED, 0xED, 0xED));
  painter.fillRect(0, 40, sheet.width(), 40, QColor(0x2A, 0x2A, 0x2A));
  int x = 0;
  for (const char* name : {"command.circle.fill", "command.circle", "pause.circle"}) {
    for (const int size : {16, 22, 32}) {
      const QImage image = toQImage(Icon{name, 0, 0, nullptr}, size);
      ASSERT_FALSE(image.isNull()) << name;
      // Drawn, not blank: some pixels are opaque.
      int opaque = 0;
      for (int py = 0; py < image.height(); ++py) {
        for (int px = 0; px < image.width(); ++px) opaque += qAlpha(image.pixel(px, py)) > 200 ? 1 : 0;
      }
      EXPECT_GT(opaque, size * size / 8) << name << " at " << size;
      for (const int y : {0, 40}) painter.drawImage(x + (40 - size) / 2, y + (40 - size) / 2, image);
      x += 40;
    }
  }
  painter.end();
  sheet.save(png("tray_icons.png"));
}

TEST(ShellViews, StatisticsWindowShowsTheFiguresAndReportsTheControls) {
  Fixture f;
  NullClipboard clipboard;
  f.counters.add("saved", 7);
  f.store.set("stats.auto", 2);
  auto owned = std::make_unique<QtStatsWindow>();
  QtStatsWindow* window = owned.get();
  stats::StatsController controller(std::move(owned), "Tarry", f.counters, f.store, f.loop, f.alerts,
                                    clipboard);
  controller.show();
  EXPECT_EQ(window->windowTitle(), "Tarry Statistics");
  EXPECT_EQ(window->size(), QSize(540, 400));
  EXPECT_EQ(text(window, "cell0.0"), "7");
  EXPECT_EQ(text(window, "cell0.2"), "7");
  EXPECT_EQ(text(window, "periodInfo"),
            "This period began 14 Mar 2026, 01:00:00\nRunning for 0d 08h 00m 00s");
  auto* autoBox = window->findChild<QComboBox*>("auto");
  ASSERT_NE(autoBox, nullptr);
  EXPECT_EQ(autoBox->currentText(), "Every week");
  EXPECT_TRUE(controller.timerRunning());
  window->grab().save(png("statistics_window.png"));

  window->findChild<QPushButton*>("copy")->click();
  EXPECT_EQ(clipboard.text.substr(0, 43), "Tarry statistics, copied 14 Mar 2026, 09:00");
  f.alerts.answers = {1};
  window->findChild<QPushButton*>("newPeriod")->click();
  EXPECT_EQ(f.alerts.shown.size(), 1u);
  EXPECT_EQ(f.counters.period("saved"), 7);

  window->close();
  EXPECT_FALSE(controller.timerRunning());
}

TEST(ShellViews, SettingsWindowCommitsEveryKindOfControl) {
  Fixture f;
  sim::SimLoginItems loginItems;
  sim::SimAppearance appearance;
  int changes = 0;
  settings::SettingsController controller(
      f.store, loginItems, appearance, f.alerts,
      settings::SettingsHooks{{}, {}, {}, {}, {}, [&changes] { ++changes; }});
  auto owned = std::make_unique<QtSettingsWindow>();
  QtSettingsWindow* window = owned.get();
  bool tap = false;
  settings::SettingsWindowHooks hooks;
  hooks.tapActive = [&tap] { return tap; };
  hooks.tapProblem = [] { return std::string("Ctrl+Q is taken by another program"); };
  settings::SettingsWindow presenter(std::move(owned), controller, hooks);
  f.store.set("holdSeconds", 3.5);
  presenter.show();

  EXPECT_EQ(window->windowTitle(), "Tarry Settings");
  EXPECT_EQ(text(window, "guardStatus"), "Keyboard guard off: Ctrl+Q is taken by another program");
  EXPECT_TRUE(window->findChild<QLabel*>("guardHelp")->isVisibleTo(window));
  EXPECT_EQ(text(window, "holdValue"), "3.5 s");
  EXPECT_EQ(window->findChild<QSlider*>("holdSeconds")->value(), 7);
  window->grab().save(png("settings_window.png"));

  window->findChild<QCheckBox*>("playSound")->click();
  EXPECT_EQ(f.store.get("playSound"), Value(false));
  EXPECT_EQ(changes, 1);

  auto* logout = window->findChild<QComboBox*>("logoutHoldIndex");
  ASSERT_NE(logout, nullptr);
  QKeyEvent down(QEvent::KeyPress, Qt::Key_Down, Qt::NoModifier);
  QCoreApplication::sendEvent(logout, &down);  // "2 seconds" → "3 seconds"
  EXPECT_EQ(f.store.get("logoutHold"), Value(3.0));

  window->findChild<QSlider*>("holdSeconds")->setValue(3);  // as a drag would
  EXPECT_EQ(f.store.get("holdSeconds"), Value(1.5));
  EXPECT_EQ(text(window, "holdValue"), "1.5 s");

  f.alerts.answers = {1};
  window->findChild<QPushButton*>("reset")->click();
  EXPECT_FALSE(f.store.get("playSound").has_value());
  EXPECT_TRUE(window->findChild<QCheckBox*>("playSound")->isChecked());
  EXPECT_EQ(window->findChild<QComboBox*>("logoutHoldIndex")->currentText(), "2 seconds");

  tap = true;
  presenter.refresh();
  EXPECT_FALSE(window->findChild<QLabel*>("guardHelp")->isVisibleTo(window));
}

TEST(ShellViews, AboutWindowNamesVersionLicenceAndServer) {
  QtAboutWindow window;
  window.setTexts(app::aboutTexts("https://tarry.example"));
  EXPECT_EQ(window.windowTitle(), "About Tarry");
  EXPECT_EQ(text(&window, "version"), QStringLiteral("Version ") + TARRY_VERSION);
  EXPECT_EQ(text(&window, "server"), "Server: https://tarry.example");
  EXPECT_FALSE(text(&window, "licence").isEmpty());
  window.grab().save(png("about_window.png"));
  window.setTexts(app::aboutTexts(""));
  EXPECT_FALSE(window.findChild<QLabel*>("server")->isVisibleTo(&window));
}

TEST(QtWindowShortcuts, CtrlCommaOpensSettingsAndCtrlQQuitsInTheProgramsWindows) {
  std::vector<std::string> heard;
  const QtWindowShortcuts shortcuts(
      {[&heard] { heard.emplace_back("settings"); }, [&heard] { heard.emplace_back("quit"); }});
  QWidget window;
  auto* field = new QLineEdit(&window);
  window.show();
  field->setFocus();
  QTest::keyClick(field, Qt::Key_Comma, Qt::ControlModifier);
  QTest::keyClick(field, Qt::Key_Q, Qt::ControlModifier);
  QTest::keyClick(field, Qt::Key_Q, Qt::ControlModifier | Qt::ShiftModifier);  // not Ctrl alone
  QTest::keyClick(field, Qt::Key_Q);
  EXPECT_EQ(heard, (std::vector<std::string>{"settings", "quit"}));
  EXPECT_EQ(field->text(), "q") << "other keys still reach the window";
}

}  // namespace
}  // namespace tarry::platform::qt
