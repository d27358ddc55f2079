#include "platform/kde/kwin_script.h"

#include "platform/linux/json_fields.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusReply>
#include <QDBusVirtualObject>
#include <nlohmann/json.hpp>

namespace tarry::platform::kde {
namespace {

using os::numberOf;
using os::textOf;

constexpr char kService[] = "org.tarry.Tarry.KWin";
constexpr char kPath[] = "/KWin";
constexpr char kPluginName[] = "tarry-kwin";
// A request call open longer than D-Bus's default timeout (25 s) would fail in KWin and end the
// script's loop: an empty answer goes out before that.
constexpr double kIdleAnswerSec = 15;

}  // namespace

const KWinWindow* KWinWindows::activeWindow() const {
  if (active.empty()) return nullptr;
  for (const KWinWindow& window : windows) {
    if (window.uuid == active) return &window;
  }
  return activeAlone && activeAlone->uuid == active ? &*activeAlone : nullptr;
}

namespace {

std::optional<KWinWindow> windowOf(const nlohmann::json& item, std::map<std::string, std::uint32_t>& ids) {
  if (!item.is_object()) return std::nullopt;
  KWinWindow window;
  window.uuid = textOf(item, "id");
  if (window.uuid.empty()) return std::nullopt;
  auto [it, added] = ids.try_emplace(window.uuid, 0);
  // Numbers are never reused while the program runs: a closed window's number stays unknown.
  if (added) it->second = static_cast<std::uint32_t>(ids.size());
  window.id = it->second;
  window.pid = static_cast<std::int32_t>(numberOf(item, "pid"));
  window.resourceClass = textOf(item, "resourceClass");
  window.desktopFile = textOf(item, "desktopFile");
  window.caption = textOf(item, "caption");
  window.x = numberOf(item, "x");
  window.y = numberOf(item, "y");
  window.width = numberOf(item, "width");
  window.height = numberOf(item, "height");
  window.minimized = item.value("minimized", false);
  return window;
}

}  // namespace

std::optional<KWinWindows> parseKWinReport(const std::string& json,
                                           std::map<std::string, std::uint32_t>& ids) {
  const nlohmann::json report = nlohmann::json::parse(json, nullptr, false);
  if (!report.is_object() || !report.contains("windows") || !report["windows"].is_array())
    return std::nullopt;
  KWinWindows out;
  out.active = textOf(report, "active");
  out.activePid = static_cast<std::int32_t>(numberOf(report, "activePid"));
  for (const nlohmann::json& item : report["windows"]) {
    if (std::optional<KWinWindow> window = windowOf(item, ids)) out.windows.push_back(std::move(*window));
  }
  if (const auto alone = report.find("activeWindow"); alone != report.end())
    out.activeAlone = windowOf(*alone, ids);
  return out;
}

class KWinScript::Endpoint final : public QDBusVirtualObject {
 public:
  explicit Endpoint(QDBusConnection bus) : bus_(std::move(bus)) {}

  bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override {
    const QString member = message.member();
    if (member == QLatin1String("report")) {
      const std::string text = message.arguments().value(0).toString().toStdString();
      std::int32_t activated = 0;
      {
        std::lock_guard lock(mutex_);
        if (std::optional<KWinWindows> parsed = parseKWinReport(text, ids_)) {
          if (parsed->active != state_.active && parsed->activePid > 0) activated = parsed->activePid;
          state_ = std::move(*parsed);
          reported_ = true;
        }
      }
      if (activated > 0) {
        std::lock_guard called(activatedMutex_);
        if (onActivated_) onActivated_(activated);
      }
      connection.send(message.createReply());
      return true;
    }
    if (member == QLatin1String("next")) {
      std::lock_guard lock(mutex_);
      if (pending_) answer(*pending_, "[]");
      pending_ = message;
      message.setDelayedReply(true);
      flush(false);
      return true;
    }
    return false;
  }

  [[nodiscard]] QString introspect(const QString& /*path*/) const override {
    return QStringLiteral(
        "<interface name=\"org.tarry.KWin\">"
        "<method name=\"report\"><arg name=\"windows\" type=\"s\" direction=\"in\"/></method>"
        "<method name=\"next\"><arg name=\"requests\" type=\"s\" direction=\"out\"/></method>"
        "</interface>");
  }

  void push(const std::string& request) {
    std::lock_guard lock(mutex_);
    queue_.push_back(nlohmann::json::parse(request));
    flush(false);
  }

  void idle() {
    std::lock_guard lock(mutex_);
    flush(true);
  }

  [[nodiscard]] KWinWindows state() const {
    std::lock_guard lock(mutex_);
    return state_;
  }
  [[nodiscard]] bool reported() const {
    std::lock_guard lock(mutex_);
    return reported_;
  }
  [[nodiscard]] std::string uuidOf(std::uint32_t id) const {
    std::lock_guard lock(mutex_);
    for (const auto& [uuid, number] : ids_) {
      if (number == id) return uuid;
    }
    return {};
  }
  void setOnActivated(std::function<void(std::int32_t)> onActivated) {
    std::lock_guard lock(activatedMutex_);
    onActivated_ = std::move(onActivated);
  }

 private:
  // Needs `mutex_`.
  void flush(bool evenEmpty) {
    if (!pending_ || (queue_.empty() && !evenEmpty)) return;
    answer(*pending_, queue_.dump());
    queue_ = nlohmann::json::array();
    pending_.reset();
  }
  void answer(const QDBusMessage& call, const std::string& text) {
    bus_.send(call.createReply(QVariant(QString::fromStdString(text))));
  }

  QDBusConnection bus_;
  mutable std::mutex mutex_;
  std::map<std::string, std::uint32_t> ids_;
  KWinWindows state_;
  bool reported_ = false;
  std::optional<QDBusMessage> pending_;
  nlohmann::json queue_ = nlohmann::json::array();
  std::mutex activatedMutex_;
  std::function<void(std::int32_t)> onActivated_;
};

namespace {

QDBusMessage kwinCall(const QString& path, const QString& interface, const QString& method,
                      const QVariantList& arguments = {}) {
  QDBusMessage call = QDBusMessage::createMethodCall(QStringLiteral("org.kde.KWin"), path, interface, method);
  call.setArguments(arguments);
  return QDBusConnection::sessionBus().call(call, QDBus::Block, 5000);
}

}  // namespace

std::unique_ptr<KWinScript> KWinScript::open(MainLoop& loop, const std::string& scriptPath,
                                             std::string& error) {
  QDBusConnection bus = QDBusConnection::sessionBus();
  if (!bus.isConnected()) {
    error = "no session bus";
    return nullptr;
  }
  std::unique_ptr<KWinScript> script(new KWinScript());
  script->endpoint_ = std::make_unique<Endpoint>(bus);
  if (!bus.registerVirtualObject(QString::fromLatin1(kPath), script->endpoint_.get())) {
    error = "cannot offer the window helper's object on the session bus";
    return nullptr;
  }
  // A copy started by an update runs next to the old one for a moment: it takes the name (and
  // with it the script's reports) over, and the old one leaves the script alone when it ends.
  const QDBusReply<QDBusConnectionInterface::RegisterServiceReply> registered =
      bus.interface()->registerService(QString::fromLatin1(kService),
                                       QDBusConnectionInterface::ReplaceExistingService,
                                       QDBusConnectionInterface::AllowReplacement);
  if (!registered.isValid() || registered.value() != QDBusConnectionInterface::ServiceRegistered) {
    bus.unregisterObject(QString::fromLatin1(kPath));
    error = "another program holds " + std::string(kService) + " on the session bus";
    return nullptr;
  }
  const QString scripting = QStringLiteral("org.kde.kwin.Scripting");
  // A copy left by an earlier run (whose request loop ended with it) is replaced.
  kwinCall(QStringLiteral("/Scripting"), scripting, QStringLiteral("unloadScript"),
           {QString::fromLatin1(kPluginName)});
  const QDBusMessage loaded =
      kwinCall(QStringLiteral("/Scripting"), scripting, QStringLiteral("loadScript"),
               {QString::fromStdString(scriptPath), QString::fromLatin1(kPluginName)});
  const int id = loaded.type() == QDBusMessage::ReplyMessage ? loaded.arguments().value(0).toInt() : -1;
  if (id < 0) {
    error = "KWin did not load its window helper " + scriptPath +
            (loaded.type() == QDBusMessage::ErrorMessage ? ": " + loaded.errorMessage().toStdString()
                                                         : std::string());
    bus.unregisterService(QString::fromLatin1(kService));
    bus.unregisterObject(QString::fromLatin1(kPath));
    return nullptr;
  }
  // Plasma 6 names the script's object /Scripting/Script<id>, KWin 5.27 /<id>.
  const QString script6 = QStringLiteral("/Scripting/Script%1").arg(id);
  const QString script5 = QStringLiteral("/%1").arg(id);
  QDBusMessage ran = kwinCall(script6, QStringLiteral("org.kde.kwin.Script"), QStringLiteral("run"));
  if (ran.type() != QDBusMessage::ReplyMessage)
    ran = kwinCall(script5, QStringLiteral("org.kde.kwin.Script"), QStringLiteral("run"));
  if (ran.type() != QDBusMessage::ReplyMessage) {
    error = "KWin did not run its window helper: " + ran.errorMessage().toStdString();
    kwinCall(QStringLiteral("/Scripting"), scripting, QStringLiteral("unloadScript"),
             {QString::fromLatin1(kPluginName)});
    bus.unregisterService(QString::fromLatin1(kService));
    bus.unregisterObject(QString::fromLatin1(kPath));
    return nullptr;
  }
  Endpoint* endpoint = script->endpoint_.get();
  script->idle_ = loop.every(kIdleAnswerSec, [endpoint] { endpoint->idle(); });
  return script;
}

KWinScript::~KWinScript() {
  idle_.cancel();
  QDBusConnection bus = QDBusConnection::sessionBus();
  endpoint_->setOnActivated(nullptr);
  // The script is the newer copy's once that one holds the name.
  if (bus.interface()->serviceOwner(QString::fromLatin1(kService)).value() == bus.baseService()) {
    kwinCall(QStringLiteral("/Scripting"), QStringLiteral("org.kde.kwin.Scripting"),
             QStringLiteral("unloadScript"), {QString::fromLatin1(kPluginName)});
    bus.unregisterService(QString::fromLatin1(kService));
  }
  bus.unregisterObject(QString::fromLatin1(kPath));
}

bool KWinScript::reported() const { return endpoint_->reported(); }

KWinWindows KWinScript::windows() const { return endpoint_->state(); }

void KWinScript::request(const std::string& json) { endpoint_->push(json); }

void KWinScript::closeWindow(std::uint32_t id) {
  const std::string uuid = endpoint_->uuidOf(id);
  if (!uuid.empty()) request(nlohmann::json{{"op", "close"}, {"id", uuid}}.dump());
}

void KWinScript::closeWindowsOf(std::int32_t pid) {
  request(nlohmann::json{{"op", "closePid"}, {"pid", pid}}.dump());
}

bool KWinScript::setFrame(std::uint32_t id, double x, double y, double width, double height, bool minimized) {
  const std::string uuid = endpoint_->uuidOf(id);
  if (uuid.empty()) return false;
  request(nlohmann::json{{"op", "frame"},
                         {"id", uuid},
                         {"x", x},
                         {"y", y},
                         {"width", width},
                         {"height", height},
                         {"minimized", minimized}}
              .dump());
  return true;
}

void KWinScript::setOnActivated(std::function<void(std::int32_t pid)> onActivated) {
  endpoint_->setOnActivated(std::move(onActivated));
}

}  // namespace tarry::platform::kde
