#pragma once

#include "platform/main_loop.h"

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace tarry::platform::sim {

/// A main loop on virtual time. Nothing runs until the test advances the clock; timers fire in
/// order of their due time (ties in the order they were scheduled), with the clock set to each
/// timer's due time while it runs.
class SimMainLoop final : public MainLoop {
 public:
  /// Virtual uptime starts at `uptime`; the wall clock at `wall` seconds since 1970.
  explicit SimMainLoop(double uptime = 1000.0, double wall = 1'780'000'000.0);
  ~SimMainLoop() override;

  [[nodiscard]] double uptime() const override { return uptime_; }
  [[nodiscard]] double now() const override { return wall_; }
  [[nodiscard]] CalendarFields localTime(double secondsSince1970) const override;

  [[nodiscard]] Scheduled after(double delay, std::function<void()> work, double tolerance = 0) override;
  [[nodiscard]] Scheduled every(double interval, std::function<void()> work, double tolerance = 0) override;
  [[nodiscard]] Scheduled post(std::function<void()> work) override;
  void dispatchMain(std::function<void()> work) override;
  void background(std::function<void()> work) override;
  SerialQueue& serialQueue(const std::string& label) override;
  int run() override;
  void quit(int status) override;

  /// Moves both clocks forward by `seconds`, running every timer and work item that falls due.
  void advance(double seconds);
  /// Runs the work that is due now (posted work, zero-delay timers) without moving the clock.
  void runDue() { advance(0); }
  /// Sets the wall clock (the uptime is left alone).
  void setWallClock(double secondsSince1970) { wall_ = secondsSince1970; }
  /// Local time is wall time shifted by this many seconds (a fixed time zone).
  void setUtcOffset(double seconds) { utcOffset_ = seconds; }

  /// Background work runs at once inside `background` (the default), or is held until released.
  void setHoldBackground(bool hold) { holdBackground_ = hold; }
  /// Runs held background work, oldest first; returns how many items ran.
  std::size_t releaseBackground();
  /// Drops held background work without running it.
  void discardBackground();
  [[nodiscard]] std::size_t heldBackgroundCount() const { return held_.size(); }
  /// Number of live timers and queued items.
  [[nodiscard]] std::size_t pendingCount() const;

 private:
  struct Item {
    double due;
    std::uint64_t seq;
    double interval;  // 0 = once
    std::shared_ptr<CancelToken> token;
    std::shared_ptr<std::function<void()>> work;
  };
  Scheduled schedule(double delay, double interval, std::function<void()> work);
  void takeIncoming();

  double uptime_;
  double wall_;
  double utcOffset_ = 0;
  std::uint64_t nextSeq_ = 0;
  std::multimap<std::pair<double, std::uint64_t>, Item> items_;
  std::mutex incomingMutex_;
  std::vector<std::function<void()>> incoming_;  // dispatchMain from any thread
  bool holdBackground_ = false;
  std::deque<std::function<void()>> held_;
  std::map<std::string, std::unique_ptr<SerialQueue>> queues_;
  bool quitRequested_ = false;
  int quitStatus_ = 0;
};

}  // namespace tarry::platform::sim
