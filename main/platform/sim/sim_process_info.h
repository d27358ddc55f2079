#pragma once

#include "platform/process_info.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace tarry::platform::sim {

/// A scripted process table on its own virtual clock. `sleepFor` moves that clock, and every
/// process accumulates CPU time at its scripted rate while it does, so a CPU sample reads exactly
/// the load the test set up, without any real waiting.
class SimProcessInfo final : public ProcessInfo {
 public:
  /// One scripted process.
  struct Process {
    std::int32_t parent = 0;
    /// `comm`; nothing = unreadable.
    std::optional<std::string> name;
    /// Executable file name; nothing = unreadable.
    std::optional<std::string> executable;
    /// Load in percent of one core (may exceed 100 for several threads).
    double cpuPercent = 0;
    std::uint64_t cpuNs = 0;
    std::optional<std::uint64_t> footprint;
  };

  [[nodiscard]] std::vector<std::int32_t> childrenOf(std::int32_t pid) override;
  [[nodiscard]] std::optional<std::string> name(std::int32_t pid) override;
  [[nodiscard]] std::optional<std::string> executableName(std::int32_t pid) override;
  [[nodiscard]] std::optional<std::uint64_t> cpuTimeNs(std::int32_t pid) override;
  [[nodiscard]] std::optional<std::uint64_t> footprintBytes(std::int32_t pid) override;
  [[nodiscard]] std::uint64_t monotonicNs() override;
  void sleepFor(double milliseconds) override;

  /// Adds (or replaces) a process; children are listed in the order they were added.
  void add(std::int32_t pid, std::int32_t parent, std::optional<std::string> name,
           std::optional<std::string> executable = std::nullopt, double cpuPercent = 0);
  /// Ends a process: every query about it fails from now on. Its children stay, orphaned.
  void remove(std::int32_t pid);
  void setCpuPercent(std::int32_t pid, double percent);
  void setFootprint(std::int32_t pid, std::optional<std::uint64_t> bytes);
  /// Extra child links on top of the parent of each process, for trees a real system cannot build
  /// (a cycle, a child listed twice) that the walkers must survive.
  void addExtraChild(std::int32_t parent, std::int32_t child);

  /// Milliseconds slept, in order.
  [[nodiscard]] std::vector<double> sleeps() const;
  /// Number of `childrenOf` queries answered.
  [[nodiscard]] int childQueries() const;

 private:
  mutable std::mutex mutex_;
  std::map<std::int32_t, Process> processes_;
  std::vector<std::int32_t> order_;
  std::multimap<std::int32_t, std::int32_t> extraChildren_;
  std::uint64_t clockNs_ = 1'000'000'000;
  std::vector<double> sleeps_;
  int childQueries_ = 0;
};

}  // namespace tarry::platform::sim
