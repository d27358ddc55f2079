#include "platform/qt/qt_hand_over_server.h"

#include "platform/qt/qt_convert.h"

#include <QLocalServer>
#include <QLocalSocket>
#include <QTimer>

#include <utility>

namespace tarry::platform::qt {
namespace {

/// A client that does not finish its line in this time is dropped.
constexpr int kRequestTimeoutMs = 2000;
constexpr qint64 kMaxRequest = 4096;

}  // namespace

QtHandOverServer::QtHandOverServer(Handler handler)
    : handler_(std::move(handler)), server_(new QLocalServer(this)) {
  server_->setSocketOptions(QLocalServer::UserAccessOption);
  connect(server_, &QLocalServer::newConnection, this, [this] { accept(); });
}

QtHandOverServer::~QtHandOverServer() { server_->close(); }

bool QtHandOverServer::listen(const std::string& socketPath, std::string& error) {
  if (server_->listen(toQString(socketPath))) return true;
  error = toStdString(server_->errorString());
  return false;
}

void QtHandOverServer::accept() {
  while (QLocalSocket* socket = server_->nextPendingConnection()) {
    connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
    QTimer::singleShot(kRequestTimeoutMs, socket, [socket] { socket->abort(); });
    connect(socket, &QLocalSocket::readyRead, socket, [this, socket] {
      if (!socket->canReadLine()) {
        if (socket->bytesAvailable() > kMaxRequest) socket->abort();
        return;
      }
      const QByteArray line = socket->readLine(kMaxRequest).trimmed();
      const std::string reply = handler_ ? handler_(line.toStdString()) : std::string("error: not ready");
      socket->write(QByteArray::fromStdString(reply + "\n"));
      socket->disconnectFromServer();
    });
  }
}

}  // namespace tarry::platform::qt
