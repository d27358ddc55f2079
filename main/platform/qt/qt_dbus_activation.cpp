#include "platform/qt/qt_dbus_activation.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QVariantMap>

namespace tarry::platform::qt {

bool activateOnSessionBus(const std::string& desktopId) {
  if (desktopId.empty()) return false;
  QDBusConnection bus = QDBusConnection::sessionBus();
  if (!bus.isConnected()) return false;
  // The object path is the id with dots as slashes and dashes as underscores.
  QString path = "/" + QString::fromStdString(desktopId);
  path.replace('.', '/').replace('-', '_');
  QDBusMessage call = QDBusMessage::createMethodCall(QString::fromStdString(desktopId), path,
                                                     "org.freedesktop.Application", "Activate");
  call << QVariantMap{};
  const QDBusMessage reply = bus.call(call, QDBus::Block, 5000);
  return reply.type() == QDBusMessage::ReplyMessage;
}

}  // namespace tarry::platform::qt
