#pragma once

#include "diagnostics/log.h"
#include "diagnostics/redact.h"
#include "platform/crash_reports.h"

#include <nlohmann/json.hpp>

#include <functional>
#include <string>

namespace tarry::diagnostics {

/// Where log bundles go: the telemetry sender. Both hooks may be empty (nothing is sent).
struct LogSender {
  /// True when a telemetry endpoint is configured.
  std::function<bool()> configured;
  /// Sends a payload of `kind`; `done(true)` once the server took it (on any thread).
  std::function<void(const std::string& kind, nlohmann::json payload, bool force,
                     std::function<void(bool sent)> done)>
      send;
};

/// Crash recording, system crash reports and the log upload, around the event log.
/// NOTE: file work runs on the log's serial queue; the crash handlers touch only the crash log's
/// descriptor, which the platform opens once at start.
class Diagnostics final {
 public:
  Diagnostics(Log& log, platform::FileSystem& files, platform::DefaultsStore& store,
              const settings::Tunables& tunables, platform::CrashReports& crashes,
              platform::SystemFacts facts, std::string version)
      : log_(log),
        files_(files),
        store_(store),
        tunables_(tunables),
        crashes_(crashes),
        facts_(std::move(facts)),
        version_(std::move(version)) {}
  /// Waits for the work it queued on the log queue.
  ~Diagnostics() { log_.queue().drain(); }
  Diagnostics(const Diagnostics&) = delete;
  Diagnostics& operator=(const Diagnostics&) = delete;

  /// First thing at launch: opens "crash.log" (0600) and installs the crash handlers, logs the
  /// "start …" line, and queues the housekeeping. Waits only for the log directory to be found.
  void startLogging();
  /// `text` without the user's home path, name and host name.
  [[nodiscard]] std::string redact(std::string_view text) const;
  /// Queues copying new system crash reports about this program into "reports".
  void collectReports();
  /// Queues building the log bundle and handing it to `sender` when it changed (or when forced).
  void uploadLogs(bool force);
  /// The telemetry sender; set it before the first upload.
  void setSender(LogSender sender) { sender_ = std::move(sender); }

  /// Log queue only: copies the system's new reports, then keeps the newest `reportsKept`.
  void housekeeping();

 private:
  void copyReports(const std::string& reportsDir);
  void pruneReports(const std::string& reportsDir);
  void upload(bool force);
  [[nodiscard]] std::string tail(const std::string& path, std::int64_t maxBytes) const;

  Log& log_;
  platform::FileSystem& files_;
  platform::DefaultsStore& store_;
  const settings::Tunables& tunables_;
  platform::CrashReports& crashes_;
  platform::SystemFacts facts_;
  std::string version_;
  LogSender sender_;
};

}  // namespace tarry::diagnostics
