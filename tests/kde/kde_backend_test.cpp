// The KDE backend's pieces that need no KWin: the window helper's reports, the desktop entry that
// unlocks fake input, and the D-Bus bytes that the helper process sends when the program dies
// (checked against a real bus daemon).
#include "platform/kde/dbus_wire.h"
#include "platform/kde/fake_input_entry.h"
#include "platform/kde/kde_event_tap.h"
#include "platform/kde/kwin_script.h"
#include "platform/qt/qt_main_loop.h"

#include "../support/bus_daemon.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusVirtualObject>
#include <QElapsedTimer>
#include <QThread>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>

namespace tarry::platform::kde {
namespace {

TEST(KWinReport, WindowsKeepTheirNumbersAndTheActiveOneIsFound) {
  std::map<std::string, std::uint32_t> ids;
  const auto first = parseKWinReport(
      R"({"active":"{b}","activePid":42,"windows":[
           {"id":"{b}","pid":42,"resourceClass":"kate","desktopFile":"org.kde.kate","caption":"notes",
            "x":10,"y":20,"width":640,"height":400,"minimized":false},
           {"id":"{a}","pid":7,"resourceClass":"foot","desktopFile":"","caption":"sh","x":0,"y":0,
            "width":300,"height":200,"minimized":true}]})",
      ids);
  ASSERT_TRUE(first);
  ASSERT_EQ(first->windows.size(), 2U);
  const KWinWindow* active = first->activeWindow();
  ASSERT_NE(active, nullptr);
  EXPECT_EQ(active->desktopFile, "org.kde.kate");
  EXPECT_EQ(active->width, 640);
  EXPECT_TRUE(first->windows[1].minimized);
  const std::uint32_t kate = first->windows[0].id;
  const std::uint32_t foot = first->windows[1].id;
  EXPECT_NE(kate, foot);

  // The next report (foot gone, a new window) keeps kate's number and gives the newcomer a fresh one.
  const auto second = parseKWinReport(
      R"({"active":"","activePid":0,"windows":[{"id":"{c}","pid":9},{"id":"{b}","pid":42}]})", ids);
  ASSERT_TRUE(second);
  EXPECT_EQ(second->activeWindow(), nullptr);
  EXPECT_EQ(second->windows[1].id, kate);
  EXPECT_NE(second->windows[0].id, kate);
  EXPECT_NE(second->windows[0].id, foot);

  // An active dialog is described on its own: the frontmost app is still known.
  const auto dialog = parseKWinReport(
      R"({"active":"{d}","activePid":42,"activeWindow":{"id":"{d}","pid":42,"caption":"Save?"},"windows":[]})",
      ids);
  ASSERT_TRUE(dialog);
  ASSERT_NE(dialog->activeWindow(), nullptr);
  EXPECT_EQ(dialog->activeWindow()->pid, 42);

  EXPECT_FALSE(parseKWinReport("not json", ids));
  EXPECT_FALSE(parseKWinReport(R"({"active":""})", ids));
}

TEST(FakeInputEntry, OnlyAnEntryThatStartsThisProgramAndDeclaresTheProtocolCounts) {
  const std::string exe = "/opt/tarry/bin/tarry";
  EXPECT_TRUE(declaresFakeInput(fakeInputEntryText(exe), exe));
  EXPECT_FALSE(declaresFakeInput(fakeInputEntryText("/usr/bin/tarry"), exe));
  EXPECT_TRUE(
      declaresFakeInput("[Desktop Entry]\nExec=/opt/tarry/bin/tarry\n"
                        "X-KDE-Wayland-Interfaces=org_kde_plasma_window_management,org_kde_kwin_fake_input\n",
                        exe));
  // KWin compares the whole Exec line with the program, and takes the value as a comma list.
  EXPECT_FALSE(
      declaresFakeInput("[Desktop Entry]\nExec=/opt/tarry/bin/tarry --autostart\n"
                        "X-KDE-Wayland-Interfaces=org_kde_kwin_fake_input\n",
                        exe));
  EXPECT_FALSE(
      declaresFakeInput("[Desktop Entry]\nExec=/opt/tarry/bin/tarry\n"
                        "X-KDE-Wayland-Interfaces=org_kde_kwin_fake_input;\n",
                        exe));
  EXPECT_FALSE(declaresFakeInput("[Desktop Entry]\nExec=/opt/tarry/bin/tarry\n", exe));
  // Keys of another group are not the entry's.
  EXPECT_FALSE(
      declaresFakeInput("[Desktop Entry]\nExec=/opt/tarry/bin/tarry\n[Desktop Action x]\n"
                        "X-KDE-Wayland-Interfaces=org_kde_kwin_fake_input\n",
                        exe));
}

TEST(FakeInputEntry, IsWrittenOnceWhenNoFolderDeclaresTheProgram) {
  const std::filesystem::path dir =
      std::filesystem::temp_directory_path() / ("tarry-kde-entry-" + std::to_string(getpid()));
  std::filesystem::remove_all(dir);
  const std::string exe = "/opt/tarry/bin/tarry";
  const std::string own = (dir / "own").string();
  int refreshed = 0;
  const auto refresh = [&refreshed] {
    ++refreshed;
    return std::string("refreshed");
  };
  EXPECT_FALSE(ensureFakeInputEntry(exe, {(dir / "system").string(), own}, own, refresh).empty());
  EXPECT_EQ(refreshed, 1);
  int entries = 0;
  for (const auto& file : std::filesystem::directory_iterator(own)) {
    std::ifstream in(file.path());
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_TRUE(declaresFakeInput(text, exe));
    ++entries;
  }
  EXPECT_EQ(entries, 1);
  EXPECT_EQ(ensureFakeInputEntry(exe, {(dir / "system").string(), own}, own, refresh), "");
  EXPECT_EQ(refreshed, 1);
  std::filesystem::remove_all(dir);
}

TEST(DBusWire, AddressesGiveTheirSocket) {
  EXPECT_EQ(dbusSocketPath("unix:path=/run/user/1000/bus"), "/run/user/1000/bus");
  EXPECT_EQ(dbusSocketPath("unix:abstract=/tmp/dbus-x,guid=1"), std::string("\0/tmp/dbus-x", 12));
  EXPECT_EQ(dbusSocketPath("tcp:host=a,port=1;unix:path=/tmp/a%2cb"), "/tmp/a,b");
  EXPECT_EQ(dbusSocketPath("tcp:host=a,port=1"), "");
}

/// Records the calls that reach one object path.
class Recorder final : public QDBusVirtualObject {
 public:
  bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override {
    calls.push_back(message);
    connection.send(message.createReply());
    return true;
  }
  [[nodiscard]] QString introspect(const QString&) const override { return {}; }
  std::vector<QDBusMessage> calls;
};

TEST(DBusWire, TheHelpersBytesReachTheBusAsCallsWithTheirArguments) {
  testing::BusDaemon daemon;
  if (daemon.address.empty()) GTEST_SKIP() << "dbus-daemon cannot run here";
  int argc = 1;
  char name[] = "kde_backend_test";
  char* argv[] = {name, nullptr};
  QCoreApplication app(argc, argv);
  {
    QDBusConnection bus =
        QDBusConnection::connectToBus(QString::fromStdString(daemon.address), QStringLiteral("kglobalaccel"));
    ASSERT_TRUE(bus.isConnected());
    ASSERT_TRUE(bus.registerService(QStringLiteral("org.kde.kglobalaccel")));
    Recorder recorder;
    ASSERT_TRUE(bus.registerVirtualObject(QStringLiteral("/kglobalaccel"), &recorder));

    std::vector<DBusCall> calls;
    for (const KdeShortcut& shortcut : kdeShortcuts())
      calls.push_back({"org.kde.kglobalaccel",
                       "/kglobalaccel",
                       "org.kde.KGlobalAccel",
                       "setInactive",
                       {kdeActionId(shortcut)}});
    calls.push_back(
        {"org.kde.kglobalaccel", "/kglobalaccel", "org.kde.KGlobalAccel", "twoLists", {{"a", "bc"}, {}}});

    // As the helper does it: a raw socket, the AUTH line, the server's OK, then everything else.
    const std::string path = dbusSocketPath(daemon.address);
    ASSERT_FALSE(path.empty());
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, path.data(), std::min(path.size(), sizeof addr.sun_path - 1));
    const auto length =
        static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size() + (path[0] ? 1 : 0));
    ASSERT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&addr), length), 0);
    const std::string auth = dbusAuthLine(getuid());
    ASSERT_EQ(write(fd, auth.data(), auth.size()), static_cast<ssize_t>(auth.size()));
    char reply[512];
    const ssize_t got = read(fd, reply, sizeof reply);
    ASSERT_GT(got, 2);
    EXPECT_EQ(std::string(reply, 2), "OK");
    const std::string session = dbusSessionBytes(calls);
    ASSERT_EQ(write(fd, session.data(), session.size()), static_cast<ssize_t>(session.size()));

    QElapsedTimer timer;
    timer.start();
    while (recorder.calls.size() < calls.size() && timer.elapsed() < 5000) {
      QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
    }
    close(fd);
    ASSERT_EQ(recorder.calls.size(), calls.size());
    for (std::size_t i = 0; i + 1 < calls.size(); ++i) {
      const QDBusMessage& call = recorder.calls[i];
      EXPECT_EQ(call.member(), QStringLiteral("setInactive"));
      EXPECT_EQ(call.interface(), QStringLiteral("org.kde.KGlobalAccel"));
      EXPECT_EQ(call.signature(), QStringLiteral("as"));
      const QStringList id = call.arguments().value(0).toStringList();
      ASSERT_EQ(id.size(), 4);
      EXPECT_EQ(id.at(0), QStringLiteral("tarry"));
      EXPECT_EQ(id.at(1).toStdString(), kdeShortcuts()[i].action);
    }
    const QDBusMessage& last = recorder.calls.back();
    EXPECT_EQ(last.signature(), QStringLiteral("asas"));
    EXPECT_EQ(last.arguments().value(0).toStringList(), (QStringList{"a", "bc"}));
    EXPECT_TRUE(last.arguments().value(1).toStringList().isEmpty());
    bus.unregisterObject(QStringLiteral("/kglobalaccel"));
  }
  QDBusConnection::disconnectFromBus(QStringLiteral("kglobalaccel"));
}

/// KWin's scripting interface as far as loading a script goes, answering as Plasma 6 does. It
/// lives on a thread of its own: the program's calls to KWin block its main thread.
class FakeScripting final : public QDBusVirtualObject {
 public:
  bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override {
    {
      std::lock_guard lock(mutex);
      calls.push_back(message.path() + " " + message.member());
    }
    if (message.member() == QStringLiteral("loadScript")) {
      connection.send(message.createReply(QVariant(7)));
    } else if (message.member() == QStringLiteral("unloadScript")) {
      connection.send(message.createReply(QVariant(true)));
    } else {
      connection.send(message.createReply());
    }
    return true;
  }
  [[nodiscard]] QString introspect(const QString&) const override { return {}; }
  std::vector<QString> taken() {
    std::lock_guard lock(mutex);
    return calls;
  }

 private:
  std::mutex mutex;
  std::vector<QString> calls;
};

void spinUntil(const std::function<bool()>& done, int ms = 5000) {
  QElapsedTimer timer;
  timer.start();
  while (!done() && timer.elapsed() < ms) QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
}

TEST(KWinScriptBridge, ReportsFillTheWindowsAndRequestsAnswerTheScriptsCall) {
  testing::BusDaemon daemon;
  if (daemon.address.empty()) GTEST_SKIP() << "dbus-daemon cannot run here";
  int argc = 1;
  char name[] = "kde_backend_test";
  char* argv[] = {name, nullptr};
  QCoreApplication app(argc, argv);
  const QString kwinName = QStringLiteral("kwin");
  {
    // KWin on a bus of its own; the program's side uses the session bus, which is this one.
    setenv("DBUS_SESSION_BUS_ADDRESS", daemon.address.c_str(), 1);
    QDBusConnection kwin = QDBusConnection::connectToBus(QString::fromStdString(daemon.address), kwinName);
    ASSERT_TRUE(kwin.registerService(QStringLiteral("org.kde.KWin")));
    QThread kwinThread;
    FakeScripting scripting;
    scripting.moveToThread(&kwinThread);
    kwinThread.start();
    ASSERT_TRUE(
        kwin.registerVirtualObject(QStringLiteral("/Scripting"), &scripting, QDBusConnection::SubPath));

    qt::QtMainLoop loop;
    std::string error;
    std::unique_ptr<KWinScript> script = KWinScript::open(loop, "/x/tarry-kwin.js", error);
    ASSERT_TRUE(script) << error;
    // An earlier copy unloaded, this one loaded and run under Plasma 6's object path.
    const std::vector<QString> calls = scripting.taken();
    ASSERT_GE(calls.size(), 3U);
    EXPECT_EQ(calls[0], QStringLiteral("/Scripting unloadScript"));
    EXPECT_EQ(calls[1], QStringLiteral("/Scripting loadScript"));
    EXPECT_EQ(calls[2], QStringLiteral("/Scripting/Script7 run"));

    std::vector<std::int32_t> activated;
    script->setOnActivated([&activated](std::int32_t pid) { activated.push_back(pid); });
    const auto call = [&kwin](const char* member, const QVariantList& arguments) {
      QDBusMessage message =
          QDBusMessage::createMethodCall(QStringLiteral("org.tarry.Tarry.KWin"), QStringLiteral("/KWin"),
                                         QStringLiteral("org.tarry.KWin"), QString::fromLatin1(member));
      message.setArguments(arguments);
      return kwin.asyncCall(message, 20000);
    };
    const QString report = QStringLiteral(
        R"({"active":"{a}","activePid":42,"windows":[{"id":"{a}","pid":42,"caption":"one","x":5,"y":6,"width":70,"height":80}]})");
    QDBusPendingCall reported = call("report", {report});
    spinUntil([&] { return reported.isFinished(); });
    ASSERT_TRUE(script->reported());
    ASSERT_EQ(script->windows().windows.size(), 1U);
    EXPECT_EQ(script->windows().activeWindow()->caption, "one");
    EXPECT_EQ(activated, (std::vector<std::int32_t>{42}));
    // The same window reported again is no new activation.
    reported = call("report", {report});
    spinUntil([&] { return reported.isFinished(); });
    EXPECT_EQ(activated.size(), 1U);

    // The script's call for requests stays open until there is one.
    QDBusPendingReply<QString> next = call("next", {});
    spinUntil([&] { return next.isFinished(); }, 300);
    EXPECT_FALSE(next.isFinished());
    script->closeWindow(script->windows().windows[0].id);
    spinUntil([&] { return next.isFinished(); });
    ASSERT_TRUE(next.isValid()) << next.error().message().toStdString();
    EXPECT_EQ(next.value().toStdString(), R"([{"id":"{a}","op":"close"}])");
    // Requests made while no call is open wait for the next one.
    EXPECT_FALSE(script->setFrame(999, 0, 0, 1, 1, false));
    script->closeWindowsOf(42);
    next = call("next", {});
    spinUntil([&] { return next.isFinished(); });
    EXPECT_EQ(next.value().toStdString(), R"([{"op":"closePid","pid":42}])");
    script.reset();
    kwin.unregisterObject(QStringLiteral("/Scripting"), QDBusConnection::UnregisterTree);
    kwinThread.quit();
    kwinThread.wait();
  }
  QDBusConnection::disconnectFromBus(kwinName);
}

}  // namespace
}  // namespace tarry::platform::kde
