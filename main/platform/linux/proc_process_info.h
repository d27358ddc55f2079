#pragma once

#include "platform/process_info.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace tarry::platform::os {

/// Process facts read from procfs.
///
/// Children come from `/proc/<pid>/task/<tid>/children`. Kernels built without
/// CONFIG_PROC_CHILDREN lack that file; then one scan of every `/proc/<n>/stat` (its ppid field)
/// answers the children of every process, and is reused for `kScanReuse` because a tree walk asks
/// for hundreds of pids in a row.
///
/// The footprint is the proportional set size plus the proportional swap (`Pss` + `SwapPss` from
/// `smaps_rollup`): shared pages are divided among the processes that map them, so the sum over an
/// app's processes is about what quitting it gives back, where `Rss` would count every shared
/// library page once per process.
class ProcProcessInfo final : public ProcessInfo {
 public:
  /// How long one whole-/proc scan answers children queries when the children file is missing.
  static constexpr std::chrono::milliseconds kScanReuse{100};

  /// `procRoot` is the procfs mount; tests point it at a directory laid out the same way.
  /// `scanOnly` skips the children files even where the kernel has them (to compare both ways).
  explicit ProcProcessInfo(std::string procRoot = "/proc", bool scanOnly = false);

  [[nodiscard]] std::vector<std::int32_t> childrenOf(std::int32_t pid) override;
  [[nodiscard]] std::optional<std::string> name(std::int32_t pid) override;
  [[nodiscard]] std::optional<std::string> executableName(std::int32_t pid) override;
  [[nodiscard]] std::optional<std::uint64_t> cpuTimeNs(std::int32_t pid) override;
  [[nodiscard]] std::optional<std::uint64_t> footprintBytes(std::int32_t pid) override;
  [[nodiscard]] std::uint64_t monotonicNs() override;
  void sleepFor(double milliseconds) override;

 private:
  enum class ChildSource { unknown, childrenFile, statScan };

  [[nodiscard]] std::string path(std::int32_t pid, const char* leaf) const;
  /// Children from the per-thread children files; nothing when the process has none of them.
  [[nodiscard]] std::optional<std::vector<std::int32_t>> childrenFromTasks(std::int32_t pid,
                                                                           bool& processExists) const;
  [[nodiscard]] std::vector<std::int32_t> childrenFromScan(std::int32_t pid);

  std::string root_;
  std::uint64_t ticksPerSecond_;
  std::atomic<ChildSource> childSource_{ChildSource::unknown};

  std::mutex scanMutex_;
  std::chrono::steady_clock::time_point scannedAt_{};
  bool scanned_ = false;
  std::map<std::int32_t, std::vector<std::int32_t>> scanChildren_;
};

/// True when process `pid` has ended: it no longer exists, or it is a zombie that only its parent
/// has not collected yet. Every pid ≤ 0 counts as ended.
[[nodiscard]] bool processEnded(std::int32_t pid);

}  // namespace tarry::platform::os
