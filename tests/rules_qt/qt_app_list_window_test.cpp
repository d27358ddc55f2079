// NOTE: before any Qt header: Qt defines `emit` as a macro, which the store uses as a name.
#include "platform/linux/sqlite_defaults_store.h"

#include "platform/qt/qt_app_list_window.h"

#include "platform/linux/desktop_entry_reader.h"
#include "platform/sim/sim_workspace.h"
#include "linux/temp_dir.h"
#include "settings/app_list_controller.h"
#include "settings/app_rules.h"

#include <QApplication>
#include <QComboBox>
#include <QFileDialog>
#include <QKeyEvent>
#include <QLabel>
#include <QPushButton>
#include <QTimer>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>

namespace tarry::platform::qt {
namespace {

namespace fs = std::filesystem;

platform::Icon square(std::uint32_t argb) {
  constexpr int edge = 32;
  auto pixels = std::make_shared<std::vector<std::uint32_t>>(edge * edge, argb);
  // A lighter inner square, so the icon reads as drawn rather than as a block of fill.
  for (int y = 8; y < 24; ++y) {
    for (int x = 8; x < 24; ++x) (*pixels)[static_cast<std::size_t>(y * edge + x)] = 0xFFFFFFFFu;
  }
  return {"", edge, edge, std::move(pixels)};
}

/// Sends a key press as a user would, so the combo box reports an activation.
void press(QWidget* widget, int key) {
  QKeyEvent event(QEvent::KeyPress, key, Qt::NoModifier);
  QCoreApplication::sendEvent(widget, &event);
}

class QtAppListWindowTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(dir / "data/applications");
    std::ofstream(dir / "data/applications/org.example.Notes.desktop")
        << "[Desktop Entry]\nType=Application\nName=Notes\nExec=notes\n";
    store = std::make_unique<os::SqliteDefaultsStore>((dir / "defaults.sqlite3").string());
    preferences = std::make_unique<settings::Preferences>(*store);
    rules = std::make_unique<settings::AppRules>(*preferences, [this] { ++reschedules; });
    preferences->setAppModes({{"org.example.Mail", "never"}});
    preferences->setRamSaverApp({{"org.example.Web", 2}});
    workspace.addApp({"org.example.Mail", "Mail", square(0xFF2F6FDEu), 10, "", true});
    workspace.addApp({"org.example.Web", "Web Browser", square(0xFFE8792Cu), 11, "", true});
    workspace.addApp({"org.example.terminal", "terminal", square(0xFF3A3A3Au), 12, "", true});

    auto owned = std::make_unique<QtAppListWindow>();
    window = owned.get();
    controller = std::make_unique<settings::AppListController>(
        std::move(owned), workspace, entries, [this] { return rules->rules(); },
        [this](const settings::AppListController::Rules& r) { rules->setRules(r); }, rules->extras());
    controller->show();
    QCoreApplication::processEvents();
  }
  void TearDown() override {
    controller.reset();
    store.reset();
  }

  tarry::testing::TempDir temp;
  fs::path dir = temp.path();
  std::unique_ptr<os::SqliteDefaultsStore> store;
  std::unique_ptr<settings::Preferences> preferences;
  int reschedules = 0;
  std::unique_ptr<settings::AppRules> rules;
  sim::SimWorkspace workspace;
  os::DesktopEntryReader entries{std::vector<std::string>{(fs::temp_directory_path() / "tarry-rules-qt-none").string()}};
  QtAppListWindow* window = nullptr;
  std::unique_ptr<settings::AppListController> controller;
};

TEST_F(QtAppListWindowTest, ShowsTheRowsAndStoresEveryChoiceAtOnce) {
  EXPECT_TRUE(window->isVisible());
  EXPECT_EQ(window->windowTitle(), QStringLiteral("Tarry App Rules"));
  bool subtitle = false;
  for (const QLabel* label : window->findChildren<QLabel*>()) {
    subtitle = subtitle || label->text() == QStringLiteral("Choose how Ctrl+Q works for each app.");
  }
  EXPECT_TRUE(subtitle);
  auto* mail = window->findChild<QComboBox*>(QStringLiteral("org.example.Mail"));
  auto* webIdle = window->findChild<QComboBox*>(QStringLiteral("idle:org.example.Web"));
  ASSERT_NE(mail, nullptr);
  ASSERT_NE(webIdle, nullptr);
  EXPECT_EQ(mail->currentText(), QStringLiteral("Never quit"));
  EXPECT_EQ(mail->count(), 5);
  EXPECT_EQ(webIdle->currentText(), QStringLiteral("2 h"));
  EXPECT_EQ(window->findChild<QLabel*>(QStringLiteral("name:org.example.Web"))->text(), QStringLiteral("Web Browser"));

  const QImage shot = window->grab().toImage();
  EXPECT_FALSE(shot.isNull());
  EXPECT_TRUE(shot.save(QStringLiteral(TARRY_RULES_PNG)));

  // One step up from "Never quit" is "Quit instantly".
  mail->setFocus();
  press(mail, Qt::Key_Up);
  EXPECT_EQ(preferences->appMode("org.example.Mail"), "instant");
  // One step up from "2 h" is "1 h".
  press(webIdle, Qt::Key_Up);
  EXPECT_EQ(preferences->ramSaverApp().at("org.example.Web"), 1.0);
  EXPECT_EQ(reschedules, 1);

  auto* protect = window->findChild<QComboBox*>(QStringLiteral("protect"));
  ASSERT_NE(protect, nullptr);
  press(protect, Qt::Key_Down);
  EXPECT_TRUE(preferences->onlyListedApps());
  QCoreApplication::processEvents();
  // The rows were rebuilt from the store.
  EXPECT_EQ(window->findChild<QComboBox*>(QStringLiteral("org.example.Mail"))->currentText(),
            QStringLiteral("Quit instantly"));

  // The choices are in the database, not only in memory.
  store->flush();
  os::SqliteDefaultsStore reopened((dir / "defaults.sqlite3").string());
  EXPECT_EQ(reopened.get("appModes"), platform::Value({{"org.example.Mail", "instant"}}));
}

TEST_F(QtAppListWindowTest, AddOpensTheApplicationFilePanel) {
  const std::string chosen = (dir / "data/applications/org.example.Notes.desktop").string();
  bool sawPanel = false;
  QTimer::singleShot(0, [&] {
    auto* panel = qobject_cast<QFileDialog*>(QApplication::activeModalWidget());
    if (panel == nullptr) return;
    sawPanel = true;
    EXPECT_EQ(panel->directory().absolutePath(), QStringLiteral("/usr/share/applications"));
    EXPECT_EQ(panel->nameFilters(), QStringList{QStringLiteral("*.desktop")});
    EXPECT_EQ(panel->fileMode(), QFileDialog::ExistingFile);
    EXPECT_EQ(panel->labelText(QFileDialog::Accept), QStringLiteral("Add"));
    panel->selectFile(QString::fromStdString(chosen));
    static_cast<QDialog*>(panel)->accept();  // QFileDialog hides its override
  });
  window->findChild<QPushButton*>(QStringLiteral("add"))->click();
  EXPECT_TRUE(sawPanel);
  EXPECT_EQ(preferences->appMode("org.example.Notes"), "never");
  auto* notes = window->findChild<QComboBox*>(QStringLiteral("org.example.Notes"));
  ASSERT_NE(notes, nullptr);
  EXPECT_EQ(notes->currentText(), QStringLiteral("Never quit"));
}

}  // namespace
}  // namespace tarry::platform::qt

int main(int argc, char** argv) {
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  QApplication app(argc, argv);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
