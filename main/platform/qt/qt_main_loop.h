#pragma once

#include "platform/main_loop.h"

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class QObject;
class QTimer;

namespace tarry::platform::qt {

/// The main loop on the Qt event loop of the main thread: QTimers for timers, queued calls for
/// posted work, the global QThreadPool for background work, one worker thread per serial queue.
/// NOTE: construct it on the main thread after the QApplication (or QCoreApplication), and destroy
/// it before that.
class QtMainLoop final : public MainLoop {
 public:
  QtMainLoop();
  ~QtMainLoop() override;

  [[nodiscard]] double uptime() const override;
  [[nodiscard]] double now() const override;
  [[nodiscard]] CalendarFields localTime(double secondsSince1970) const override;

  [[nodiscard]] Scheduled after(double delay, std::function<void()> work, double tolerance = 0) override;
  [[nodiscard]] Scheduled every(double interval, std::function<void()> work, double tolerance = 0) override;
  [[nodiscard]] Scheduled post(std::function<void()> work) override;
  void dispatchMain(std::function<void()> work) override;
  void background(std::function<void()> work) override;
  SerialQueue& serialQueue(const std::string& label) override;

  int run() override;
  void quit(int status) override;

 private:
  struct Timer {
    std::shared_ptr<CancelToken> token;
    QTimer* timer;
  };
  Scheduled startTimer(double seconds, bool repeating, std::function<void()> work, double tolerance);
  void sweepCancelledTimers();

  /// Lives on the main thread; queued calls and timers are delivered through it.
  std::unique_ptr<QObject> context_;
  std::vector<Timer> timers_;
  std::mutex queuesMutex_;
  std::map<std::string, std::unique_ptr<SerialQueue>> queues_;
  bool running_ = false;
  bool quitEarly_ = false;
  int quitStatus_ = 0;
};

}  // namespace tarry::platform::qt
