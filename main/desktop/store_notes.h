#pragma once

#include "diagnostics/log.h"

#include <functional>
#include <iostream>
#include <mutex>
#include <string>
#include <vector>

namespace tarry::desktop {

/// What the preferences store reports (a damaged database moved aside, a read-only one, saves
/// failing): printed on stderr and written to the event log. Lines from before the log exists (the
/// store is opened first: the log finds its folder through it) wait for it.
/// NOTE: the store may report from its writer thread.
class StoreNotes final {
 public:
  /// Forwards to `log` while it lives.
  class Attached final {
   public:
    explicit Attached(StoreNotes& notes) : notes_(notes) {}
    ~Attached() { notes_.setLog(nullptr); }
    Attached(const Attached&) = delete;
    Attached& operator=(const Attached&) = delete;

   private:
    StoreNotes& notes_;
  };

  [[nodiscard]] std::function<void(const std::string&)> callback() {
    return [this](const std::string& line) { take(line); };
  }
  /// Writes the waiting lines to `log`, and every later line until the result is destroyed.
  [[nodiscard]] Attached attach(diagnostics::Log& log) {
    setLog(&log);
    return Attached(*this);
  }

 private:
  void take(const std::string& line) {
    std::cerr << "tarry: " << line << '\n';
    const std::lock_guard lock(mutex_);
    if (log_ != nullptr) {
      log_->log(line);
    } else {
      held_.push_back(line);
    }
  }
  void setLog(diagnostics::Log* log) {
    const std::lock_guard lock(mutex_);
    log_ = log;
    if (log_ == nullptr) return;
    for (std::string& line : held_) log_->log(std::move(line));
    held_.clear();
  }

  std::mutex mutex_;
  diagnostics::Log* log_ = nullptr;
  std::vector<std::string> held_;
};

}  // namespace tarry::desktop
