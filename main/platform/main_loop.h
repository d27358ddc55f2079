#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace tarry::platform {

/// Local calendar fields of a wall-clock moment.
struct CalendarFields {
  int year = 1970;
  int month = 1;    // 1 … 12
  int day = 1;      // 1 … 31
  int hour = 0;     // 0 … 23
  int minute = 0;   // 0 … 59
  int second = 0;   // 0 … 60
  int weekday = 5;  // 0 = Sunday … 6 = Saturday
};

/// Shared flag between a handle and the loop that holds its work.
struct CancelToken {
  std::atomic<bool> cancelled{false};
};

/// RAII handle of a timer or a scheduled work item: destroying or resetting it cancels the work.
/// NOTE: cancelling work that already ran is harmless.
class Scheduled final {
 public:
  Scheduled() = default;
  explicit Scheduled(std::shared_ptr<CancelToken> token) : token_(std::move(token)) {}
  Scheduled(const Scheduled&) = delete;
  Scheduled& operator=(const Scheduled&) = delete;
  Scheduled(Scheduled&& other) noexcept : token_(std::move(other.token_)) {}
  Scheduled& operator=(Scheduled&& other) noexcept {
    if (this != &other) {
      cancel();
      token_ = std::move(other.token_);
    }
    return *this;
  }
  ~Scheduled() { cancel(); }

  /// Cancels the work; it will not run (again).
  void cancel() {
    if (token_) token_->cancelled.store(true);
    token_.reset();
  }
  /// True while the handle holds work that has not been cancelled.
  [[nodiscard]] bool active() const { return token_ && !token_->cancelled.load(); }

 private:
  std::shared_ptr<CancelToken> token_;
};

/// A queue that runs its work one item at a time, in order, off the main thread.
class SerialQueue {
 public:
  SerialQueue() = default;
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;
  virtual ~SerialQueue() = default;

  /// Queues work; returns at once.
  virtual void async(std::function<void()> work) = 0;
  /// Blocks until every item queued so far has run (used at exit and by tests).
  virtual void drain() = 0;
};

/// The main run loop and the clocks. All logic runs on the main thread; it asks this for time,
/// timers, deferred work and background work.
class MainLoop {
 public:
  MainLoop() = default;
  MainLoop(const MainLoop&) = delete;
  MainLoop& operator=(const MainLoop&) = delete;
  virtual ~MainLoop() = default;

  /// Monotonic seconds since an arbitrary origin (system uptime); never goes back.
  [[nodiscard]] virtual double uptime() const = 0;
  /// Wall-clock seconds since 1970-01-01T00:00:00Z.
  [[nodiscard]] virtual double now() const = 0;
  /// Local calendar fields of a wall-clock moment, in the user's time zone.
  [[nodiscard]] virtual CalendarFields localTime(double secondsSince1970) const = 0;

  /// Runs `work` once on the main thread after `delay` seconds (≥ 0); `tolerance` lets the
  /// system fire it up to that much later.
  [[nodiscard]] virtual Scheduled after(double delay, std::function<void()> work,
                                        double tolerance = 0) = 0;
  /// Runs `work` on the main thread every `interval` seconds until the handle is dropped.
  [[nodiscard]] virtual Scheduled every(double interval, std::function<void()> work,
                                        double tolerance = 0) = 0;
  /// Queues `work` on the main thread as soon as the loop is free; cancellable through the handle.
  [[nodiscard]] virtual Scheduled post(std::function<void()> work) = 0;
  /// Queues `work` on the main thread; not cancellable. Safe to call from any thread.
  virtual void dispatchMain(std::function<void()> work) = 0;
  /// Runs `work` on the global background pool (user-initiated quality).
  virtual void background(std::function<void()> work) = 0;
  /// The named serial queue, created on first use and kept for the life of the loop.
  virtual SerialQueue& serialQueue(const std::string& label) = 0;

  /// Runs the loop until `quit`; returns the exit status given to `quit`.
  virtual int run() = 0;
  /// Ends `run` with the given status.
  virtual void quit(int status) = 0;
};

}  // namespace tarry::platform
