#pragma once

#include <functional>
#include <mutex>
#include <string>

namespace tarry::platform {

/// What the network looks like now: kind "wifi", "ethernet", "cellular", "other" or "none"
/// ("unknown" until the first report), and whether the link is expensive (metered) or constrained.
struct NetworkPath {
  std::string kind = "unknown";
  bool expensive = false;
  bool constrained = false;
};

/// The process-wide network status: written by the network monitor's queue, read by anyone.
class NetworkStatus final {
 public:
  [[nodiscard]] NetworkPath current() const {
    const std::lock_guard lock(mutex_);
    return path_;
  }
  void set(NetworkPath path) {
    const std::lock_guard lock(mutex_);
    path_ = std::move(path);
  }

 private:
  mutable std::mutex mutex_;
  NetworkPath path_;
};

/// Watches the network path and reports each change.
class NetworkMonitor {
 public:
  using Handler = std::function<void(const NetworkPath&)>;

  NetworkMonitor() = default;
  NetworkMonitor(const NetworkMonitor&) = delete;
  NetworkMonitor& operator=(const NetworkMonitor&) = delete;
  virtual ~NetworkMonitor() = default;

  /// Starts watching; `handler` runs with the first path and after every change, off the main
  /// thread. Calling it again does nothing.
  virtual void start(Handler handler) = 0;
};

}  // namespace tarry::platform
