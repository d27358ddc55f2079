#pragma once

#include "platform/crash_reports.h"

#include <string>
#include <vector>

namespace tarry::platform::os {

/// Facts about this process and machine: /proc/self, /etc/os-release, uname, the ELF build-id,
/// the password database and the host name.
[[nodiscard]] SystemFacts readSystemFacts();

/// The crash recorder on Linux and the desktop's crash collectors.
/// NOTE: the handlers are process-wide and stay installed for the life of the process; the
/// signal handler only calls write, backtrace, backtrace_symbols_fd, sigaction and raise, on an
/// alternate stack so that a stack overflow is still recorded.
class LinuxCrashReports final : public CrashReports {
 public:
  /// `processName` picks the reports that are about this program; `crashDir` is apport's
  /// directory ("/var/crash"); `coredumpctl` the program that lists systemd-coredump's dumps
  /// (empty: not asked).
  explicit LinuxCrashReports(std::string processName, std::string crashDir = "/var/crash",
                             std::string coredumpctl = "coredumpctl")
      : processName_(std::move(processName)),
        crashDir_(std::move(crashDir)),
        coredumpctl_(std::move(coredumpctl)) {}

  bool install(const std::string& crashLogPath) override;
  [[nodiscard]] std::vector<std::string> systemReports() override;
  [[nodiscard]] std::optional<std::string> readSystemReport(const std::string& name) override;

 private:
  [[nodiscard]] std::vector<std::string> apportReports() const;

  std::string processName_;
  std::string crashDir_;
  std::string coredumpctl_;
};

/// Runs `argv` (searched in PATH) with no shell and returns its standard output, at most
/// `maxBytes`; nothing when it cannot start or fails.
[[nodiscard]] std::optional<std::string> runAndCapture(const std::vector<std::string>& argv,
                                                       std::size_t maxBytes);

}  // namespace tarry::platform::os
