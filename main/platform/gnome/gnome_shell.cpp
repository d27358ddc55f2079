#include "platform/gnome/gnome_shell.h"

#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusReply>
#include <QDBusServiceWatcher>
#include <QDBusVariant>
#include <QThread>

namespace tarry::platform::gnome {

std::unique_ptr<GnomeShell> GnomeShell::connect(std::string& error) {
  QDBusConnection bus = QDBusConnection::sessionBus();
  if (!bus.isConnected()) {
    error = "no session bus: " + bus.lastError().message().toStdString();
    return nullptr;
  }
  // A copy started by an update takes the name over from the running one (which lets it go): the
  // extension then listens to the new copy alone.
  const QString name = QString::fromLatin1(kTarryBusName);
  QDBusConnectionInterface* names = bus.interface();
  const QDBusReply<QDBusConnectionInterface::RegisterServiceReply> reply =
      names ? names->registerService(name, QDBusConnectionInterface::ReplaceExistingService,
                                     QDBusConnectionInterface::AllowReplacement)
            : QDBusReply<QDBusConnectionInterface::RegisterServiceReply>();
  if (!reply.isValid() || reply.value() != QDBusConnectionInterface::ServiceRegistered) {
    error =
        "another program owns the bus name " + name.toStdString() + " (" +
        (reply.isValid() ? std::string("it refused to let it go") : reply.error().message().toStdString()) +
        ")";
    return nullptr;
  }
  return std::unique_ptr<GnomeShell>(new GnomeShell(bus));
}

GnomeShell::GnomeShell(QDBusConnection bus) : bus_(std::move(bus)) {
  const QString service = QString::fromLatin1(kExtensionBusName);
  const QString path = QString::fromLatin1(kExtensionPath);
  const QString interface = QString::fromLatin1(kExtensionInterface);
  bus_.connect(service, path, interface, QStringLiteral("Key"), this, SLOT(key(QString, bool, QString)));
  bus_.connect(service, path, interface, QStringLiteral("Modifiers"), this, SLOT(modifiers(uint)));
  bus_.connect(service, path, interface, QStringLiteral("Activated"), this, SLOT(activated(int)));
  watcher_ = new QDBusServiceWatcher(
      service, bus_, QDBusServiceWatcher::WatchForRegistration | QDBusServiceWatcher::WatchForUnregistration,
      this);
  QObject::connect(watcher_, &QDBusServiceWatcher::serviceRegistered, this, [this] {
    if (onExtension) onExtension(true);
  });
  QObject::connect(watcher_, &QDBusServiceWatcher::serviceUnregistered, this, [this] {
    if (onExtension) onExtension(false);
  });
}

GnomeShell::~GnomeShell() { bus_.unregisterService(QString::fromLatin1(kTarryBusName)); }

bool GnomeShell::extensionRunning() const {
  const QDBusConnectionInterface* names = bus_.interface();
  return names && names->isServiceRegistered(QString::fromLatin1(kExtensionBusName)).value();
}

int GnomeShell::shellMajorVersion() const {
  QDBusMessage message = QDBusMessage::createMethodCall(
      QStringLiteral("org.gnome.Shell"), QStringLiteral("/org/gnome/Shell"),
      QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
  message << QStringLiteral("org.gnome.Shell") << QStringLiteral("ShellVersion");
  const QDBusMessage reply = bus_.call(message, QDBus::Block, 2000);
  if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty()) return 0;
  const QString version = reply.arguments().first().value<QDBusVariant>().variant().toString();
  return version.section(QLatin1Char('.'), 0, 0).toInt();
}

std::optional<QVariantList> GnomeShell::call(const QString& method, const QVariantList& args,
                                             std::string* error, int timeoutMs) const {
  QDBusMessage message = QDBusMessage::createMethodCall(QString::fromLatin1(kExtensionBusName),
                                                        QString::fromLatin1(kExtensionPath),
                                                        QString::fromLatin1(kExtensionInterface), method);
  message.setArguments(args);
  const QDBusMessage reply = bus_.call(message, QDBus::Block, timeoutMs);
  if (reply.type() != QDBusMessage::ReplyMessage) {
    if (error) *error = reply.errorMessage().toStdString();
    return std::nullopt;
  }
  return reply.arguments();
}

void GnomeShell::send(const QString& method, const QVariantList& args) const {
  QDBusMessage message = QDBusMessage::createMethodCall(QString::fromLatin1(kExtensionBusName),
                                                        QString::fromLatin1(kExtensionPath),
                                                        QString::fromLatin1(kExtensionInterface), method);
  message.setArguments(args);
  message.setAutoStartService(false);
  bus_.asyncCall(message);
}

void GnomeShell::setOnActivated(std::function<void(std::int32_t pid)> onActivated) {
  std::lock_guard lock(activatedMutex_);
  onActivated_ = std::move(onActivated);
}

void GnomeShell::key(const QString& word, bool down, const QString& window) {
  if (down) windowAtPress_ = window.toStdString();
  if (onKey) onKey(word.toStdString(), down);
  windowAtPress_.reset();
}

std::optional<std::string> GnomeShell::windowAtPress() const {
  if (QThread::currentThread() != thread()) return std::nullopt;
  return windowAtPress_;
}

void GnomeShell::modifiers(uint mask) {
  if (onModifiers) onModifiers(mask);
}

void GnomeShell::activated(int pid) {
  std::lock_guard lock(activatedMutex_);
  if (onActivated_) onActivated_(pid);
}

}  // namespace tarry::platform::gnome
