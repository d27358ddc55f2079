#pragma once

#include <functional>
#include <string>

namespace tarry::platform {

/// A small window showing the progress of a long task, with a Cancel button.
class ProgressWindow {
 public:
  ProgressWindow() = default;
  ProgressWindow(const ProgressWindow&) = delete;
  ProgressWindow& operator=(const ProgressWindow&) = delete;
  virtual ~ProgressWindow() = default;

  /// Shows the window with its title; `cancel` runs on the main thread when the user clicks
  /// Cancel or closes the window.
  virtual void show(const std::string& title, std::function<void()> cancel) = 0;
  /// The line under the title and the bar: `fraction` 0 … 1, or below 0 for "unknown" (a busy bar).
  virtual void update(const std::string& text, double fraction) = 0;
  /// Whether Cancel can be clicked (not while files are being swapped).
  virtual void setCancellable(bool cancellable) = 0;
  virtual void close() = 0;
};

}  // namespace tarry::platform
