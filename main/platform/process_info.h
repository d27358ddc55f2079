#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tarry::platform {

/// Facts about the processes of the session: the tree, names, CPU time and memory.
/// NOTE: called from background threads; every query may fail (the process ended, no permission)
/// and then answers empty or nothing, never an error.
class ProcessInfo {
 public:
  ProcessInfo() = default;
  ProcessInfo(const ProcessInfo&) = delete;
  ProcessInfo& operator=(const ProcessInfo&) = delete;
  virtual ~ProcessInfo() = default;

  /// The direct child processes of `pid`; empty when it has none or the query failed.
  [[nodiscard]] virtual std::vector<std::int32_t> childrenOf(std::int32_t pid) = 0;
  /// The kernel's short process name (`comm` on Linux); nothing when unreadable.
  [[nodiscard]] virtual std::optional<std::string> name(std::int32_t pid) = 0;
  /// The file name (no directory) of the process's executable; nothing when unreadable.
  [[nodiscard]] virtual std::optional<std::string> executableName(std::int32_t pid) = 0;
  /// Accumulated user plus system CPU time of the whole process, in nanoseconds.
  [[nodiscard]] virtual std::optional<std::uint64_t> cpuTimeNs(std::int32_t pid) = 0;
  /// Memory the process holds, in bytes (the backend documents which measure it uses).
  [[nodiscard]] virtual std::optional<std::uint64_t> footprintBytes(std::int32_t pid) = 0;
  /// Monotonic nanoseconds, the clock a CPU sample is measured against.
  [[nodiscard]] virtual std::uint64_t monotonicNs() = 0;
  /// Blocks the calling background thread for `milliseconds` (the CPU sample's interval).
  virtual void sleepFor(double milliseconds) = 0;
};

}  // namespace tarry::platform
