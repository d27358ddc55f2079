#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace tarry::platform::sim {

/// A time-stamped record of what the simulated backends were asked to do, in order.
class Journal final {
 public:
  struct Entry {
    double time;
    std::string line;
  };

  explicit Journal(std::function<double()> clock) : clock_(std::move(clock)) {}

  void add(std::string line) { entries_.push_back({clock_(), std::move(line)}); }
  [[nodiscard]] const std::vector<Entry>& entries() const { return entries_; }
  void clear() { entries_.clear(); }

 private:
  std::function<double()> clock_;
  std::vector<Entry> entries_;
};

}  // namespace tarry::platform::sim
