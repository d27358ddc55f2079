#include "platform/kde/kde_event_tap.h"

#include "platform/kde/dbus_wire.h"
#include "platform/kde/fake_input.h"

#include <fcntl.h>
#include <linux/input-event-codes.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusServiceWatcher>
#include <QObject>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <set>

namespace tarry::platform::kde {
namespace {

constexpr char kComponent[] = "tarry";
constexpr char kComponentName[] = "Tarry";
constexpr char kAccelService[] = "org.kde.kglobalaccel";
constexpr char kAccelPath[] = "/kglobalaccel";
constexpr char kAccelInterface[] = "org.kde.KGlobalAccel";
// The bus name of the copy that guards: a copy started by an update takes it over from the old
// one, which then leaves the shortcuts (which are the same) to it.
constexpr char kGuardName[] = "org.tarry.Tarry.Guard";
// How long after the tap starts a missing fake input is not yet reported (the service cache may
// still be learning this program's desktop file).
constexpr double kFakeInputGraceSec = 10;
constexpr int kFakeInputAttempts = 10;
// KGlobalAccel's SetPresent | NoAutoloading: take these keys now, whatever the saved settings say.
constexpr unsigned kSetPresentNoAutoloading = 6;

QStringList toQt(const std::vector<std::string>& list) {
  QStringList out;
  for (const std::string& item : list) out << QString::fromStdString(item);
  return out;
}

QDBusMessage accelCall(const char* method, const QVariantList& arguments) {
  QDBusMessage call =
      QDBusMessage::createMethodCall(QString::fromLatin1(kAccelService), QString::fromLatin1(kAccelPath),
                                     QString::fromLatin1(kAccelInterface), QString::fromLatin1(method));
  call.setArguments(arguments);
  return QDBusConnection::sessionBus().call(call, QDBus::Block, 3000);
}

QList<int> intsOf(const QVariant& value) {
  if (value.canConvert<QDBusArgument>()) return qdbus_cast<QList<int>>(value.value<QDBusArgument>());
  return value.value<QList<int>>();
}

bool accelRunning() {
  QDBusConnection bus = QDBusConnection::sessionBus();
  return bus.isConnected() && bus.interface() &&
         bus.interface()->isServiceRegistered(QString::fromLatin1(kAccelService));
}

}  // namespace

const std::vector<KdeShortcut>& kdeShortcuts() {
  static const std::vector<KdeShortcut> shortcuts = {
      {"quit", "Ctrl+Q", 0x04000051, kKeyQ, kFlagCommand, u"q", u'q', KEY_Q},
      {"close", "Ctrl+W", 0x04000057, kKeyW, kFlagCommand, u"w", u'w', KEY_W},
      {"logout", "Ctrl+Shift+Q", 0x06000051, kKeyQ, kFlagCommand | kFlagShift, u"Q", u'q', KEY_Q},
      {"undo", "Ctrl+Alt+Z", 0x0C00005A, kKeyZ, kFlagCommand | kFlagOption, u"z", u'z', KEY_Z},
  };
  return shortcuts;
}

std::vector<std::string> kdeActionId(const KdeShortcut& shortcut) {
  return {kComponent, shortcut.action, kComponentName, "Guard " + shortcut.name};
}

class KdeEventTap::Session final : public QObject {
  Q_OBJECT

 public:
  Session(MainLoop& loop, std::function<void()> closeWindow)
      : loop_(loop), closeWindow_(std::move(closeWindow)) {}
  ~Session() override { stop(); }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  /// Takes the guard's bus name (from an older copy, too) and follows who holds it.
  void own();
  bool start(Callback callback, std::string& error);
  void stop();
  void enable() { enabled_ = tapped_; }
  void post(const KeyEvent& event);
  void clearLeftovers();
  [[nodiscard]] std::string problem() const;

 public slots:
  void onPressed(const QString& component, const QString& action, qlonglong timestamp);
  void onReleased(const QString& component, const QString& action, qlonglong timestamp);

 private:
  bool arm(const KdeShortcut& shortcut);
  void disarm(const KdeShortcut& shortcut);
  bool letThrough(const KdeShortcut& shortcut, bool keysDown);
  bool typeChord(std::uint32_t evdevCode, std::uint64_t flags, bool keysDown);
  bool openFakeInput();
  void prepareFakeInput(int attempts);
  void startCleaner();
  void stopCleaner(bool fire);
  void standDown();
  [[nodiscard]] bool owner() const;
  [[nodiscard]] bool guarded(const KdeShortcut& shortcut) const {
    return !refused_.contains(shortcut.action);
  }

  MainLoop& loop_;
  std::function<void()> closeWindow_;
  std::shared_ptr<Callback> callback_;
  bool tapped_ = false;
  bool enabled_ = false;
  // Actions whose keys are down (pressed, not yet released): auto-repeat presses them again.
  std::set<std::string> down_;
  // Combinations another component owns, with what KGlobalAccel says about the owner.
  std::map<std::string, std::string> refused_;
  // Opened when first needed; `problem` tries too.
  mutable std::unique_ptr<FakeInput> fakeInput_;
  mutable std::string fakeInputError_;
  bool closedInstead_ = false;
  double startedAt_ = 0;
  Scheduled fakeInputRetry_;
  mutable double probedAt_ = -1e9;
  pid_t cleaner_ = -1;
  int cleanerPipe_ = -1;
  // A newer copy holds the guard's name: its shortcuts are not this copy's to touch.
  bool handedOn_ = false;
  QDBusServiceWatcher* nameWatch_ = nullptr;
};

void KdeEventTap::Session::own() {
  QDBusConnection bus = QDBusConnection::sessionBus();
  bus.interface()->registerService(QString::fromLatin1(kGuardName),
                                   QDBusConnectionInterface::ReplaceExistingService,
                                   QDBusConnectionInterface::AllowReplacement);
  nameWatch_ = new QDBusServiceWatcher(QString::fromLatin1(kGuardName), bus,
                                       QDBusServiceWatcher::WatchForOwnerChange, this);
  QObject::connect(nameWatch_, &QDBusServiceWatcher::serviceOwnerChanged, this,
                   [this](const QString&, const QString&, const QString& newOwner) {
                     if (newOwner != QDBusConnection::sessionBus().baseService()) standDown();
                   });
}

bool KdeEventTap::Session::owner() const {
  QDBusConnection bus = QDBusConnection::sessionBus();
  return !handedOn_ &&
         bus.interface()->serviceOwner(QString::fromLatin1(kGuardName)).value() == bus.baseService();
}

void KdeEventTap::Session::standDown() {
  const bool wasTapped = tapped_ && !handedOn_;
  handedOn_ = true;
  if (!wasTapped) return;
  enabled_ = false;
  down_.clear();
  stopCleaner(false);
}

bool KdeEventTap::Session::arm(const KdeShortcut& shortcut) {
  const QDBusMessage reply =
      accelCall("setShortcut", {toQt(kdeActionId(shortcut)), QVariant::fromValue(QList<int>{shortcut.qtKey}),
                                kSetPresentNoAutoloading});
  if (reply.type() != QDBusMessage::ReplyMessage) return false;
  return intsOf(reply.arguments().value(0)).contains(shortcut.qtKey);
}

void KdeEventTap::Session::disarm(const KdeShortcut& shortcut) {
  accelCall("setInactive", {toQt(kdeActionId(shortcut))});
}

void KdeEventTap::Session::clearLeftovers() {
  // A shortcut left active by a run that could not end it (killed with its helper) would keep
  // swallowing the key while this program is not guarding it.
  for (const KdeShortcut& shortcut : kdeShortcuts()) disarm(shortcut);
}

bool KdeEventTap::Session::start(Callback callback, std::string& error) {
  if (tapped_) {
    error = "a tap is already installed";
    return false;
  }
  QDBusConnection bus = QDBusConnection::sessionBus();
  const QString path = QStringLiteral("/component/%1").arg(QString::fromLatin1(kComponent));
  const QString interface = QStringLiteral("org.kde.kglobalaccel.Component");
  refused_.clear();
  int armed = 0;
  for (const KdeShortcut& shortcut : kdeShortcuts()) {
    accelCall("doRegister", {toQt(kdeActionId(shortcut))});
    if (arm(shortcut)) {
      ++armed;
      continue;
    }
    // Empty keys come back when another component owns the combination.
    const QDBusMessage owner = accelCall("action", {shortcut.qtKey});
    const QStringList id = owner.arguments().value(0).toStringList();
    // The owner's action id: component, action, and their names for the user.
    refused_[shortcut.action] = id.size() >= 4  ? id.at(2).toStdString() + " (" + id.at(3).toStdString() + ")"
                                : !id.isEmpty() ? id.at(0).toStdString()
                                                : std::string("another program");
  }
  if (armed == 0) {
    error = "KWin's global shortcuts refused every combination";
    return false;
  }
  const bool pressed = bus.connect(QString::fromLatin1(kAccelService), path, interface,
                                   QStringLiteral("globalShortcutPressed"), this,
                                   SLOT(onPressed(QString, QString, qlonglong)));
  const bool released = bus.connect(QString::fromLatin1(kAccelService), path, interface,
                                    QStringLiteral("globalShortcutReleased"), this,
                                    SLOT(onReleased(QString, QString, qlonglong)));
  if (!pressed || !released) {
    error = "cannot follow KWin's global shortcuts on the session bus";
    clearLeftovers();
    return false;
  }
  callback_ = std::make_shared<Callback>(std::move(callback));
  tapped_ = true;
  startedAt_ = loop_.uptime();
  prepareFakeInput(kFakeInputAttempts);
  enabled_ = false;
  down_.clear();
  startCleaner();
  return true;
}

void KdeEventTap::Session::stop() {
  if (!tapped_) return;
  tapped_ = false;
  enabled_ = false;
  callback_.reset();
  QDBusConnection bus = QDBusConnection::sessionBus();
  const QString path = QStringLiteral("/component/%1").arg(QString::fromLatin1(kComponent));
  const QString interface = QStringLiteral("org.kde.kglobalaccel.Component");
  bus.disconnect(QString::fromLatin1(kAccelService), path, interface, QStringLiteral("globalShortcutPressed"),
                 this, SLOT(onPressed(QString, QString, qlonglong)));
  bus.disconnect(QString::fromLatin1(kAccelService), path, interface,
                 QStringLiteral("globalShortcutReleased"), this,
                 SLOT(onReleased(QString, QString, qlonglong)));
  const bool mine = owner();
  if (mine) clearLeftovers();
  down_.clear();
  fakeInputRetry_.cancel();
  stopCleaner(mine);
}

std::string KdeEventTap::Session::problem() const {
  std::string out;
  for (const KdeShortcut& shortcut : kdeShortcuts()) {
    const auto it = refused_.find(shortcut.action);
    if (it == refused_.end()) continue;
    out += (out.empty() ? "" : "; ") + shortcut.name + " is a global shortcut of " + it->second +
           " and is not guarded";
  }
  // Whether keys can be typed back is known once the service cache had time to learn this
  // program's desktop file (written at the first start), or once a key had to be typed.
  const double now = loop_.uptime();
  if (tapped_ && !fakeInput_ && (closedInstead_ || now - startedAt_ > kFakeInputGraceSec) &&
      now - probedAt_ > kFakeInputGraceSec) {
    probedAt_ = now;
    fakeInput_ = FakeInput::open(fakeInputError_);
  }
  if (fakeInput_) fakeInputError_.clear();
  if (tapped_ && !fakeInput_ && !fakeInputError_.empty()) {
    out += (out.empty() ? "" : "; ") +
           std::string("a confirmed Ctrl+W or Ctrl+Shift+Q closes the window instead of reaching the app (") +
           fakeInputError_ + ")";
  }
  return out;
}

void KdeEventTap::Session::onPressed(const QString& component, const QString& action,
                                     qlonglong /*timestamp*/) {
  if (component != QLatin1String(kComponent) || !tapped_ || handedOn_) return;
  const std::string name = action.toStdString();
  const KdeShortcut* shortcut = nullptr;
  for (const KdeShortcut& s : kdeShortcuts()) {
    if (s.action == name) shortcut = &s;
  }
  // KWin presses a held shortcut again with the key's auto-repeat.
  if (!shortcut || !down_.insert(name).second) return;
  KeyEvent event;
  event.type = EventType::keyDown;
  event.keyCode = shortcut->keyCode;
  event.flags = shortcut->flags;
  event.text = shortcut->text;
  event.unmodifiedText = std::u16string(1, shortcut->unmodified);
  TapVerdict verdict = TapVerdict::pass;
  const std::shared_ptr<Callback> callback = callback_;
  if (enabled_ && callback && *callback) verdict = (*callback)(event);
  if (verdict == TapVerdict::pass && down_.contains(name)) letThrough(*shortcut, true);
}

void KdeEventTap::Session::onReleased(const QString& component, const QString& action,
                                      qlonglong /*timestamp*/) {
  if (component != QLatin1String(kComponent) || !tapped_ || handedOn_) return;
  const std::string name = action.toStdString();
  // Setting a shortcut inactive releases it too; by then it is no longer counted as down.
  if (down_.erase(name) == 0) return;
  for (const KdeShortcut& s : kdeShortcuts()) {
    if (s.action != name) continue;
    KeyEvent event;
    event.type = EventType::keyUp;
    event.keyCode = s.keyCode;
    event.flags = s.flags;
    const std::shared_ptr<Callback> callback = callback_;
    if (enabled_ && callback && *callback) (*callback)(event);
  }
}

void KdeEventTap::Session::prepareFakeInput(int attempts) {
  // KWin decides whether to offer the protocol when a connection is made, which reads its
  // service cache and can keep KWin busy for half a second the first time: made now, not in the
  // middle of a press. Tried again each second while the cache may still be learning this
  // program's desktop file.
  if (!tapped_ || openFakeInput() || attempts <= 1) return;
  // The retry is cancelled with the session (`Scheduled`).
  fakeInputRetry_ = loop_.after(1.0, [this, attempts] { prepareFakeInput(attempts - 1); });
}

bool KdeEventTap::Session::openFakeInput() {
  // Tried again at every need: KWin offers the protocol once the service cache knows this
  // program's desktop file, which may be written while the program runs.
  if (!fakeInput_) fakeInput_ = FakeInput::open(fakeInputError_);
  return fakeInput_ != nullptr;
}

bool KdeEventTap::Session::typeChord(std::uint32_t evdevCode, std::uint64_t flags, bool keysDown) {
  if (!openFakeInput()) return false;
  if (keysDown) {
    // The user's keys are still down: KWin has the modifiers, and the key goes up and down again.
    fakeInput_->key(evdevCode, false);
    fakeInput_->key(evdevCode, true);
    if (fakeInput_->key(evdevCode, false)) return true;
    fakeInput_.reset();
    return false;
  }
  std::vector<std::uint32_t> modifiers;
  if (flags & kFlagCommand) modifiers.push_back(KEY_LEFTCTRL);
  if (flags & kFlagShift) modifiers.push_back(KEY_LEFTSHIFT);
  if (flags & kFlagOption) modifiers.push_back(KEY_LEFTALT);
  for (const std::uint32_t m : modifiers) fakeInput_->key(m, true);
  fakeInput_->key(evdevCode, true);
  bool ok = fakeInput_->key(evdevCode, false);
  for (auto it = modifiers.rbegin(); it != modifiers.rend(); ++it) ok = fakeInput_->key(*it, false) && ok;
  if (!ok) fakeInput_.reset();
  return ok;
}

bool KdeEventTap::Session::letThrough(const KdeShortcut& shortcut, bool keysDown) {
  const bool armed = tapped_ && guarded(shortcut);
  if (armed) disarm(shortcut);
  down_.erase(shortcut.action);
  const bool typed = typeChord(shortcut.evdevCode, shortcut.flags, keysDown);
  if (armed) arm(shortcut);
  return typed;
}

void KdeEventTap::Session::post(const KeyEvent& event) {
  // The whole press is typed at the key-down; the key-up has nothing left to do.
  if (event.type != EventType::keyDown) return;
  for (const KdeShortcut& shortcut : kdeShortcuts()) {
    if (shortcut.keyCode != event.keyCode || shortcut.flags != event.flags) continue;
    if (letThrough(shortcut, down_.contains(shortcut.action))) return;
    if (shortcut.action == "close" || shortcut.action == "logout") {
      // Without fake input the key cannot reach the app; what it asks for most often can be asked
      // of KWin: close the window.
      closedInstead_ = true;
      if (closeWindow_) closeWindow_();
    }
    return;
  }
  // Other keys by their letter: the logic's key codes follow the physical layout of a US keyboard.
  static const std::pair<std::int64_t, std::uint32_t> kOthers[] = {{kKeyT, KEY_T}};
  for (const auto& [code, evdev] : kOthers) {
    if (code == event.keyCode) typeChord(evdev, event.flags, false);
  }
}

void KdeEventTap::Session::startCleaner() {
  const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  const std::string socketPath = dbusSocketPath(address ? address : "");
  if (socketPath.empty()) return;
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return;
  // Everything the helper sends is prepared here: after fork() in a threaded process it may only
  // make async-signal-safe calls.
  std::vector<DBusCall> calls;
  for (const KdeShortcut& shortcut : kdeShortcuts())
    calls.push_back({kAccelService, kAccelPath, kAccelInterface, "setInactive", {kdeActionId(shortcut)}});
  const std::string auth = dbusAuthLine(getuid());
  const std::string session = dbusSessionBytes(calls);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  const std::size_t length = std::min(socketPath.size(), sizeof addr.sun_path - 1);
  std::memcpy(addr.sun_path, socketPath.data(), length);
  // An abstract address counts its bytes; a path one ends at its NUL.
  const auto addrLength =
      static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length + (socketPath.front() == '\0' ? 0 : 1));

  const pid_t child = fork();
  if (child == 0) {
    // Out of the program's process group, deaf to the signals that end it: the helper outlives it.
    setpgid(0, 0);
    signal(SIGINT, SIG_IGN);
    signal(SIGTERM, SIG_IGN);
    signal(SIGHUP, SIG_IGN);
    signal(SIGPIPE, SIG_IGN);
    dup2(fds[0], 3);
    close_range(4, ~0U, 0);
    // The pipe closes when the program ends, however it ends; an 'x' first means that a newer
    // copy guards now and nothing is to be done.
    char byte = 0;
    for (;;) {
      const ssize_t n = read(3, &byte, 1);
      if (n == 1 && byte == 'x') _exit(0);
      if (n == 0 || (n < 0 && errno != EINTR)) break;
    }
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0 || ::connect(fd, reinterpret_cast<const sockaddr*>(&addr), addrLength) != 0) _exit(1);
    if (write(fd, auth.data(), auth.size()) != static_cast<ssize_t>(auth.size())) _exit(1);
    // The server's "OK <guid>" line, then the calls; the bus answers each, which is waited for
    // (a second of quiet at most) so that none is lost to an early hang-up.
    char reply[512];
    pollfd wait{fd, POLLIN, 0};
    if (poll(&wait, 1, 2000) <= 0 || read(fd, reply, sizeof reply) <= 0) _exit(1);
    if (write(fd, session.data(), session.size()) != static_cast<ssize_t>(session.size())) _exit(1);
    while (poll(&wait, 1, 1000) > 0 && read(fd, reply, sizeof reply) > 0) {
    }
    _exit(0);
  }
  close(fds[0]);
  if (child < 0) {
    close(fds[1]);
    return;
  }
  cleaner_ = child;
  cleanerPipe_ = fds[1];
}

void KdeEventTap::Session::stopCleaner(bool fire) {
  if (cleaner_ < 0) return;
  if (!fire) {
    [[maybe_unused]] const ssize_t written = write(cleanerPipe_, "x", 1);
  }
  close(cleanerPipe_);
  waitpid(cleaner_, nullptr, 0);
  cleaner_ = -1;
  cleanerPipe_ = -1;
}

// ---- KdeEventTap ----

namespace {

class KdeTapHandle final : public TapHandle {
 public:
  explicit KdeTapHandle(std::shared_ptr<KdeEventTap::Session> session) : session_(std::move(session)) {}
  ~KdeTapHandle() override { session_->stop(); }
  void enable() override { session_->enable(); }

 private:
  std::shared_ptr<KdeEventTap::Session> session_;
};

}  // namespace

KdeEventTap::KdeEventTap(MainLoop& loop, std::function<void()> closeWindow)
    : loop_(loop), closeWindow_(std::move(closeWindow)) {}

KdeEventTap::~KdeEventTap() = default;

bool KdeEventTap::isTrusted() {
  if (session_) return true;
  // NOTE: never call KGlobalAccel before KWin has it on the bus: D-Bus would start a standalone
  // kglobalaccel daemon, which is not the one KWin takes its shortcuts from.
  if (!accelRunning()) {
    lastError_ = "KWin's global shortcuts (org.kde.kglobalaccel) are not on the session bus";
    return false;
  }
  session_ = std::make_shared<Session>(loop_, closeWindow_);
  session_->own();
  session_->clearLeftovers();
  lastError_.clear();
  return true;
}

std::unique_ptr<TapHandle> KdeEventTap::create(Callback callback) {
  if (!isTrusted()) return nullptr;
  std::string error;
  if (!session_->start(std::move(callback), error)) {
    lastError_ = error;
    return nullptr;
  }
  lastError_.clear();
  return std::make_unique<KdeTapHandle>(session_);
}

std::string KdeEventTap::lastError() const { return lastError_; }

void KdeEventTap::post(const KeyEvent& event) {
  if (!isTrusted()) return;
  session_->post(event);
}

std::string KdeEventTap::problem() const { return session_ ? session_->problem() : std::string(); }

}  // namespace tarry::platform::kde

#include "kde_event_tap.moc"
