#pragma once

#include <QObject>

#include <functional>
#include <string>

class QLocalServer;

namespace tarry::platform::qt {

/// The running copy's end of the hand-over socket: every connection sends one request line and
/// gets one answer line back. Requests are answered on the main thread.
class QtHandOverServer final : public QObject {
 public:
  using Handler = std::function<std::string(const std::string& request)>;

  explicit QtHandOverServer(Handler handler);
  ~QtHandOverServer() override;
  QtHandOverServer(const QtHandOverServer&) = delete;
  QtHandOverServer& operator=(const QtHandOverServer&) = delete;

  /// Listens at the absolute socket path (the caller holds the instance lock and has removed any
  /// stale file); false with `error` set when that fails.
  bool listen(const std::string& socketPath, std::string& error);

 private:
  void accept();

  Handler handler_;
  QLocalServer* server_;
};

}  // namespace tarry::platform::qt
