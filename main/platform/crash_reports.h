#pragma once

#include <optional>
#include <string>
#include <vector>

namespace tarry::platform {

/// Facts about the running program and machine, read once at start.
struct SystemFacts {
  /// The executable's name ("tarry").
  std::string processName;
  /// The operating system's version text, e.g. "Debian GNU/Linux 12 (bookworm); Linux 6.1.0-18-amd64".
  std::string osVersion;
  /// The machine architecture, e.g. "x86_64" or "aarch64".
  std::string arch;
  /// The executable's GNU build-id in hex (to symbolize crash offsets offline); empty when none.
  std::string buildId;
  /// The login name and the host name, removed from anything that leaves the machine.
  std::string userName;
  std::string hostName;
  /// The user's home directory.
  std::string homeDirectory;
};

/// The crash recorder and the desktop's own crash collector.
class CrashReports {
 public:
  CrashReports() = default;
  CrashReports(const CrashReports&) = delete;
  CrashReports& operator=(const CrashReports&) = delete;
  virtual ~CrashReports() = default;

  /// Opens `crashLogPath` for appending (created owner-only) and installs the fatal-signal and
  /// uncaught-exception handlers that write back-traces to it; true when the file is open. The
  /// handlers are installed even when it cannot be opened (they then only re-raise).
  virtual bool install(const std::string& crashLogPath) = 0;
  /// Names of the system's crash reports about this program, each unique and stable.
  [[nodiscard]] virtual std::vector<std::string> systemReports() = 0;
  /// The text of one report named by `systemReports`; nothing when it cannot be read.
  [[nodiscard]] virtual std::optional<std::string> readSystemReport(const std::string& name) = 0;
};

}  // namespace tarry::platform
