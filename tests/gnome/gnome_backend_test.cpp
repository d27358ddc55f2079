// What the GNOME backends make of the extension's words, windows and settings, without a Shell.
#include "platform/gnome/gnome_event_tap.h"
#include "platform/gnome/gnome_extension_setup.h"
#include "platform/gnome/gnome_hud_panel.h"
#include "platform/gnome/gnome_status_item.h"
#include "platform/gnome/gnome_workspace.h"

#include "../support/bus_daemon.h"
#include "platform/sim/sim_desktop_entries.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QElapsedTimer>
#include <QRegularExpression>
#include <QThread>

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>

namespace tarry::platform::gnome {
namespace {

TEST(GnomeKeys, WordsBecomeTheGuardsKeyEventsAndPostedKeysTheirWords) {
  const std::optional<KeyEvent> logout = keyEventOfWord("logout", true);
  ASSERT_TRUE(logout);
  EXPECT_EQ(logout->type, EventType::keyDown);
  EXPECT_EQ(logout->keyCode, kKeyQ);
  EXPECT_EQ(logout->flags, kFlagCommand | kFlagShift);
  EXPECT_EQ(logout->unmodifiedText, std::u16string(u"q"));
  const std::optional<KeyEvent> up = keyEventOfWord("quit", false);
  ASSERT_TRUE(up);
  EXPECT_EQ(up->type, EventType::keyUp);
  EXPECT_TRUE(up->text.empty());
  // Only typed, never reported; and nothing for words from another version.
  EXPECT_FALSE(keyEventOfWord("reopen", true));
  EXPECT_FALSE(keyEventOfWord("frob", true));

  // Ctrl up during a hold: only Shift left.
  EXPECT_EQ(flagsOfMask(1), kFlagShift);
  EXPECT_EQ(flagsOfMask(4 | 8), kFlagCommand | kFlagOption);

  KeyEvent close;
  close.keyCode = kKeyW;
  close.flags = kFlagCommand;
  EXPECT_EQ(wordOfPosted(close), "close");
  close.flags = kFlagCommand | kFlagShift;
  EXPECT_EQ(wordOfPosted(close), "");
  KeyEvent reopen;
  reopen.keyCode = kKeyT;
  reopen.flags = kFlagCommand | kFlagShift;
  EXPECT_EQ(wordOfPosted(reopen), "reopen");
}

TEST(GnomeWindows, TheShellsDesktopIdComesFirstAndItsMakeshiftIdsAreSkipped) {
  const auto window = gnomeWindowOf(nlohmann::json::parse(
      R"({"id": 7, "pid": 42, "wmClass": "Gedit", "gtkAppId": "org.gnome.gedit", "desktopId": "org.gnome.gedit.desktop",
          "x": 10, "y": 20, "width": 300, "height": 200, "minimized": true, "normal": true})"));
  ASSERT_TRUE(window);
  EXPECT_EQ(window->id, 7U);
  EXPECT_TRUE(window->minimized);
  EXPECT_EQ(window->height, 200);
  EXPECT_EQ(gnomeEntryNames(*window), (std::vector<std::string>{"org.gnome.gedit", "Gedit"}));

  GnomeWindow unknown;
  unknown.desktopId = "window:12";
  unknown.wmClass = "xterm";
  EXPECT_EQ(gnomeEntryNames(unknown), std::vector<std::string>{"xterm"});

  EXPECT_FALSE(gnomeWindowOf(nlohmann::json::parse(R"({"id": 7})")));  // no process
  EXPECT_FALSE(gnomeWindowOf(nlohmann::json::parse(R"([1, 2])")));
}

TEST(GnomeExtensionSetup, InstallsEnablesAndSaysWhatIsLeftForTheUser) {
  ExtensionFacts first;
  first.bundledVersion = 3;
  ExtensionPlan plan = planExtensionSetup(first);
  EXPECT_TRUE(plan.installUserCopy);
  EXPECT_TRUE(plan.enable);
  EXPECT_EQ(plan.problem, "Log out and back in once to finish setting up Tarry");

  // The package's copy is current and the Shell runs it: nothing to do or say.
  ExtensionFacts packaged = first;
  packaged.systemVersion = 3;
  packaged.enabled = {kExtensionUuid};
  packaged.running = true;
  plan = planExtensionSetup(packaged);
  EXPECT_FALSE(plan.installUserCopy);
  EXPECT_FALSE(plan.enable);
  EXPECT_EQ(plan.problem, "");

  // An older copy of the user's is replaced, and runs until the next login.
  ExtensionFacts older = packaged;
  older.systemVersion.reset();
  older.userVersion = 2;
  plan = planExtensionSetup(older);
  EXPECT_TRUE(plan.installUserCopy);
  EXPECT_NE(plan.problem.find("was updated"), std::string::npos);

  // Switched off by the user: left off, and said.
  ExtensionFacts off = first;
  off.userVersion = 3;
  off.disabled = {kExtensionUuid};
  plan = planExtensionSetup(off);
  EXPECT_FALSE(plan.enable);
  EXPECT_TRUE(plan.problem.starts_with("Tarry's GNOME Shell extension is switched off"));
  off.userExtensionsOff = true;
  EXPECT_TRUE(planExtensionSetup(off).problem.starts_with("Extensions are switched off in GNOME"));

  EXPECT_EQ(extensionFormat(43), "legacy");
  EXPECT_EQ(extensionFormat(45), "esm");
  EXPECT_EQ(extensionFormat(0), "legacy");
}

TEST(GnomeExtensionSetup, ShellSettingListsReadAndWriteBack) {
  EXPECT_TRUE(parseStringList("@as []\n").empty());
  const std::vector<std::string> list = parseStringList("['a@b.org', 'it\\'s@x']\n");
  EXPECT_EQ(list, (std::vector<std::string>{"a@b.org", "it's@x"}));
  EXPECT_EQ(parseStringList(formatStringList(list)), list);
  EXPECT_EQ(formatStringList({}), "[]");
}

TEST(GnomeExtensionSetup, TheBuildsVersionIsReadFromItsMetadata) {
  const std::filesystem::path dir = std::filesystem::temp_directory_path() / "tarry-gnome-metadata-test";
  std::filesystem::create_directories(dir);
  std::ofstream(dir / "metadata.json") << R"({"uuid": "tarry@tarry.org", "version": 4})";
  EXPECT_EQ(extensionVersionAt(dir), 4);
  std::ofstream(dir / "metadata.json") << R"({"uuid": "tarry@tarry.org", "version": "4"})";
  EXPECT_FALSE(extensionVersionAt(dir));
  std::filesystem::remove_all(dir);
  EXPECT_FALSE(extensionVersionAt(dir));
}

TEST(GnomeHud, TheLayoutGoesToTheExtensionAsTheLogicDecidedIt) {
  HudLayout layout;
  layout.label.text = "Hold Ctrl+Q to quit Mail";
  layout.label.frame = {76, 54, 236, 24};
  layout.label.font.weight = FontWeight::semibold;
  layout.pctLabel.alignment = TextAlignment::right;
  layout.bar.track.rect = {0, 0, 236, 8};
  nlohmann::json json = hudLayoutJson(layout);
  EXPECT_EQ(json["label"]["frame"]["y"], 54);
  EXPECT_EQ(json["label"]["font"]["weight"], "semibold");
  EXPECT_EQ(json["pctLabel"]["alignment"], "right");
  EXPECT_TRUE(json["bar"]["fill"].is_null());  // nothing filled yet
  layout.bar.fill = RoundedRect{{0, 0, 118, 8}, 4, {1, 0.8, 0, 1}};
  EXPECT_EQ(hudLayoutJson(layout)["bar"]["fill"]["rect"]["width"], 118);
}

TEST(GnomeStatusMenu, EveryRowGoesByItsWordInTheMenusOrder) {
  std::array<MenuRowState, kMenuRowCount> rows{};
  rows[static_cast<std::size_t>(MenuRow::toggle)] = {"Protect Ctrl+Q", true, true, true, ""};
  rows[static_cast<std::size_t>(MenuRow::undo)].visible = false;
  const nlohmann::json json =
      statusMenuJson(rows, {{RecentRow::Kind::reopen, "Mail", "/usr/share/applications/mail.desktop"}},
                     topBarSymbol("pause.circle"), {"3", "3 blocked today"}, true);
  ASSERT_EQ(json["rows"].size(), static_cast<std::size_t>(kMenuRowCount));
  EXPECT_EQ(json["rows"][2]["row"], "toggle");
  EXPECT_EQ(json["rows"][2]["checked"], true);
  EXPECT_EQ(json["rows"][9]["row"], "undo");
  EXPECT_EQ(json["rows"][9]["visible"], false);
  EXPECT_EQ(json["rows"].back()["row"], "quit");
  EXPECT_EQ(json["recents"][0]["kind"], "reopen");
  EXPECT_EQ(json["toolTip"], "3 blocked today");
  EXPECT_EQ(json["badge"], "3");
  EXPECT_EQ(json["symbol"], "tarry-paused-symbolic");
  EXPECT_EQ(topBarSymbol("command.circle.fill"), "tarry-on-symbolic");
  EXPECT_EQ(topBarSymbol("command.circle"), "tarry-off-symbolic");
  EXPECT_EQ(topBarSymbol(""), "");
  EXPECT_STREQ(menuRowWord(MenuRow::pauseTomorrow), "pauseTomorrow");
}

/// The extension as far as greeting and arming go, on a thread of its own (the program's calls to
/// it block). Records the hold limits it was told, and every method called with its argument.
class FakeExtension final : public QDBusVirtualObject {
 public:
  bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override {
    {
      std::lock_guard lock(mutex_);
      calls_.push_back(message.member() + QLatin1Char(' ') + message.arguments().value(0).toString());
    }
    if (message.member() == QStringLiteral("Hello")) {
      {
        std::lock_guard lock(mutex_);
        limits_.push_back(message.arguments().value(0).toUInt());
      }
      connection.send(
          message.createReply(QVariant(QStringLiteral(R"({"protocol":%1})").arg(kExtensionProtocol))));
    } else if (message.member() == QStringLiteral("Arm")) {
      connection.send(message.createReply(QVariant(QStringList())));
    } else {
      connection.send(message.createReply());
    }
    return true;
  }
  [[nodiscard]] QString introspect(const QString&) const override { return {}; }
  std::vector<std::uint32_t> limits() {
    std::lock_guard lock(mutex_);
    return limits_;
  }
  QStringList calls() {
    std::lock_guard lock(mutex_);
    return calls_;
  }

 private:
  std::mutex mutex_;
  std::vector<std::uint32_t> limits_;
  QStringList calls_;
};

/// A private session bus with the fake extension on it, as the Shell would serve it.
class ExtensionOnBus {
 public:
  ExtensionOnBus() {
    if (daemon.address.empty()) return;
    setenv("DBUS_SESSION_BUS_ADDRESS", daemon.address.c_str(), 1);
    bus = std::make_unique<QDBusConnection>(
        QDBusConnection::connectToBus(QString::fromStdString(daemon.address), kName));
    extension.moveToThread(&thread);
    thread.start();
    ready = bus->registerVirtualObject(QString::fromLatin1(kExtensionPath), &extension) &&
            bus->registerService(QString::fromLatin1(kExtensionBusName));
  }
  ~ExtensionOnBus() {
    if (!bus) return;
    bus->unregisterObject(QString::fromLatin1(kExtensionPath));
    thread.quit();
    thread.wait();
    bus.reset();
    QDBusConnection::disconnectFromBus(kName);
  }
  /// Waits, turning the main loop, until `done` holds (at most 5 s).
  template <typename Done>
  static bool until(Done done) {
    QElapsedTimer timer;
    timer.start();
    while (!done() && timer.elapsed() < 5000) QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    return done();
  }

  inline static const QString kName = QStringLiteral("shell");
  testing::BusDaemon daemon;
  std::unique_ptr<QDBusConnection> bus;
  QThread thread;
  FakeExtension extension;
  bool ready = false;
};

/// One application and one private bus for the whole run: Qt keeps its session-bus connection for
/// the life of the process.
class BusEnvironment final : public ::testing::Environment {
 public:
  void SetUp() override {
    app_ = std::make_unique<QCoreApplication>(argc_, argv_);
    on = std::make_unique<ExtensionOnBus>();
  }
  void TearDown() override {
    on.reset();
    app_.reset();
  }
  inline static std::unique_ptr<ExtensionOnBus> on;

 private:
  int argc_ = 1;
  char name_[19] = "gnome_backend_test";
  char* argv_[2] = {name_, nullptr};
  std::unique_ptr<QCoreApplication> app_;
};
[[maybe_unused]] ::testing::Environment* const busEnvironment =
    ::testing::AddGlobalTestEnvironment(new BusEnvironment);

TEST(GnomeEventTap, AHoldLimitChangedAtRunTimeReachesTheExtensionAtOnce) {
  ExtensionOnBus& on = *BusEnvironment::on;
  if (on.daemon.address.empty()) GTEST_SKIP() << "dbus-daemon cannot run here";
  ASSERT_TRUE(on.ready);
  const std::size_t before = on.extension.limits().size();
  std::string error;
  std::unique_ptr<GnomeShell> shell = GnomeShell::connect(error);
  ASSERT_TRUE(shell) << error;
  GnomeEventTap tap(*shell);
  // Before the greeting a new limit waits for it.
  tap.setHoldLimit(16);
  EXPECT_EQ(on.extension.limits().size(), before);
  ASSERT_TRUE(tap.isTrusted()) << tap.lastError();
  tap.setHoldLimit(16);
  tap.setHoldLimit(32.5);
  ExtensionOnBus::until([&] { return on.extension.limits().size() >= before + 2; });
  const std::vector<std::uint32_t> limits = on.extension.limits();
  EXPECT_EQ(std::vector<std::uint32_t>(limits.begin() + static_cast<std::ptrdiff_t>(before), limits.end()),
            (std::vector<std::uint32_t>{16000, 32500}));
}

// The HUD's first frame waits on nothing that can be left out: a press is decided from the window
// the extension sent with it (no question back to the Shell), and the panel's layout, opacity,
// place and showing go over in one message (no frame in between).
TEST(GnomeHud, APressIsDecidedFromItsOwnWindowAndTheHudGoesInOneMessage) {
  ExtensionOnBus& on = *BusEnvironment::on;
  if (on.daemon.address.empty()) GTEST_SKIP() << "dbus-daemon cannot run here";
  ASSERT_TRUE(on.ready);
  std::string error;
  std::unique_ptr<GnomeShell> shell = GnomeShell::connect(error);
  ASSERT_TRUE(shell) << error;
  sim::SimDesktopEntries entries;
  GnomeWorkspace workspace(*shell, entries);
  GnomeHudPanel panel(*shell);
  HudLayout layout;
  layout.label.text = "Hold Ctrl+Q to quit Mail";

  std::optional<RunningApp> front;
  std::optional<std::string> seenElsewhere;
  shell->onKey = [&](const std::string&, bool down) {
    if (!down) return;
    front = workspace.frontmostApplication();
    // Work on another thread meanwhile does not read the press's window (it asks the Shell).
    std::thread([&] { seenElsewhere = shell->windowAtPress(); }).join();
    panel.apply(layout);
    panel.setAlpha(1);
    panel.setOrigin({100, 100});
    panel.orderFront();
  };
  const QString window =
      QStringLiteral(R"({"id": 7, "pid": %1, "wmClass": "org.example.Mail"})").arg(getpid());
  QDBusMessage press = QDBusMessage::createSignal(
      QString::fromLatin1(kExtensionPath), QString::fromLatin1(kExtensionInterface), QStringLiteral("Key"));
  press << QStringLiteral("quit") << true << window;
  const qsizetype earlier = on.extension.calls().size();
  ASSERT_TRUE(on.bus->send(press));
  const auto since = [&](const QString& pattern) {
    return on.extension.calls().mid(earlier).filter(QRegularExpression(pattern));
  };
  const auto huds = [&] { return since(QStringLiteral("^Hud ")); };
  ASSERT_TRUE(ExtensionOnBus::until([&] { return !huds().isEmpty(); }));
  ASSERT_TRUE(front);
  EXPECT_EQ(front->pid, getpid());
  EXPECT_EQ(front->bundleID, "org.example.Mail");
  EXPECT_FALSE(seenElsewhere);
  EXPECT_TRUE(since(QStringLiteral("^FocusedWindow")).isEmpty());
  const nlohmann::json shown = nlohmann::json::parse(huds().first().mid(4).toStdString());
  ASSERT_TRUE(shown.is_array());
  ASSERT_EQ(shown.size(), 4U);
  EXPECT_EQ(shown[0]["op"], "layout");
  EXPECT_EQ(shown[3]["op"], "show");

  // A meter tick goes on its own, when the main loop turns.
  layout.label.text = "Hold Ctrl+Q to quit Mail.";
  panel.apply(layout);
  ASSERT_TRUE(ExtensionOnBus::until([&] { return huds().size() == 2; }));
  EXPECT_EQ(nlohmann::json::parse(huds().last().mid(4).toStdString()).size(), 1U);
  // Away from a press the Shell is asked.
  EXPECT_FALSE(workspace.frontmostApplication());
  EXPECT_EQ(since(QStringLiteral("^FocusedWindow")).size(), 1);
}

}  // namespace
}  // namespace tarry::platform::gnome
