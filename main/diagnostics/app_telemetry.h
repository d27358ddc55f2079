#pragma once

#include "platform/workspace.h"

#include <string>
#include <string_view>

namespace tarry::diagnostics {

/// The per-app records of the usage-event sender.
class AppTelemetry {
 public:
  AppTelemetry() = default;
  AppTelemetry(const AppTelemetry&) = delete;
  AppTelemetry& operator=(const AppTelemetry&) = delete;
  virtual ~AppTelemetry() = default;

  /// Notes that an app was seen, with kind "attempted" or "quit".
  virtual void recordAppSeen(const std::string& bundleID, std::string_view kind) = 0;
  /// The app's category word ("browser", "terminal", …).
  [[nodiscard]] virtual std::string category(const platform::RunningApp& app) = 0;
  /// Sends the usage event `name` ("unsaved", "busy": a hold was lengthened for that reason).
  /// Senders that send nothing ignore it.
  virtual void event(const std::string& name) { (void)name; }
};

}  // namespace tarry::diagnostics
