#pragma once

#include "platform/network_status.h"

#include <QObject>

namespace tarry::platform::qt {

/// The network path from QNetworkInformation (NetworkManager). Without a backend the kind stays
/// "unknown", which the program treats as online.
/// NOTE: QNetworkInformation lives on the main thread; the handler is handed each change there and
/// must do its own queueing.
class QtNetworkMonitor final : public QObject, public NetworkMonitor {
 public:
  QtNetworkMonitor() = default;
  void start(Handler handler) override;

 private:
  void report();
  Handler handler_;
  bool started_ = false;
};

}  // namespace tarry::platform::qt
