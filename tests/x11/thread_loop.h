#pragma once

#include "platform/main_loop.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>

namespace tarry::test {

/// A main loop for backend tests: the test thread is the main thread and runs queued work and due
/// timers while it waits (`pumpUntil`). Only what the X11 backends use is implemented.
class ThreadLoop final : public platform::MainLoop {
 public:
  using Clock = std::chrono::steady_clock;

  [[nodiscard]] double uptime() const override {
    return std::chrono::duration<double>(Clock::now().time_since_epoch()).count();
  }
  [[nodiscard]] double now() const override { return uptime(); }
  [[nodiscard]] platform::CalendarFields localTime(double) const override { return {}; }
  [[nodiscard]] platform::Scheduled after(double delay, std::function<void()> work, double = 0) override;
  [[nodiscard]] platform::Scheduled every(double, std::function<void()>, double = 0) override { return {}; }
  [[nodiscard]] platform::Scheduled post(std::function<void()> work) override { return after(0, std::move(work)); }
  void dispatchMain(std::function<void()> work) override;
  void background(std::function<void()> work) override { dispatchMain(std::move(work)); }
  platform::SerialQueue& serialQueue(const std::string&) override { std::abort(); }
  int run() override { return 0; }
  void quit(int) override {}

  /// Runs work until `done` holds or `seconds` pass; the final value of `done`.
  bool pumpUntil(const std::function<bool()>& done, double seconds = 5.0);
  /// Runs work for `seconds`.
  void pumpFor(double seconds) {
    pumpUntil([] { return false; }, seconds);
  }

 private:
  struct Timer {
    Clock::time_point due;
    std::shared_ptr<platform::CancelToken> token;
    std::function<void()> work;
  };
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::function<void()>> queue_;
  std::deque<Timer> timers_;
};

}  // namespace tarry::test
