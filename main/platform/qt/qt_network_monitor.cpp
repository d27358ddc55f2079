#include "platform/qt/qt_network_monitor.h"

#include <QNetworkInformation>

#include <utility>

namespace tarry::platform::qt {

void QtNetworkMonitor::start(Handler handler) {
  if (started_) return;
  started_ = true;
  handler_ = std::move(handler);
  if (!QNetworkInformation::loadDefaultBackend()) return;
  QNetworkInformation* info = QNetworkInformation::instance();
  if (info == nullptr) return;
  connect(info, &QNetworkInformation::reachabilityChanged, this, [this] { report(); });
  connect(info, &QNetworkInformation::transportMediumChanged, this, [this] { report(); });
  connect(info, &QNetworkInformation::isMeteredChanged, this, [this] { report(); });
  report();
}

void QtNetworkMonitor::report() {
  const QNetworkInformation* info = QNetworkInformation::instance();
  if (info == nullptr || !handler_) return;
  NetworkPath path;
  const auto reachability = info->reachability();
  if (reachability == QNetworkInformation::Reachability::Unknown) {
    path.kind = "unknown";
  } else if (reachability == QNetworkInformation::Reachability::Disconnected) {
    path.kind = "none";
  } else {
    switch (info->transportMedium()) {
      case QNetworkInformation::TransportMedium::WiFi:
        path.kind = "wifi";
        break;
      case QNetworkInformation::TransportMedium::Ethernet:
        path.kind = "ethernet";
        break;
      case QNetworkInformation::TransportMedium::Cellular:
        path.kind = "cellular";
        break;
      default:
        path.kind = "other";
        break;
    }
  }
  // A metered link is what the program calls expensive; Qt has no notion of "constrained".
  path.expensive = info->isMetered();
  handler_(path);
}

}  // namespace tarry::platform::qt
