#pragma once

#include "guard/hold_policy.h"
#include "platform/audio.h"
#include "platform/main_loop.h"
#include "platform/process_info.h"
#include "platform/window_list.h"
#include "platform/workspace.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarry::settings {
class Preferences;
class Tunables;
}  // namespace tarry::settings

namespace tarry::guard {

/// The most processes a busy check looks at.
inline constexpr std::size_t kMaxTreeProcesses = 400;

/// The hold policy with careful mode: work hours and the microphone lengthen every hold, and a
/// quit target that is busy (sound, microphone, a command in a terminal, high CPU) or shows unsaved
/// work lengthens the running hold.
/// NOTE: `hasUnsavedWork` and `busyReasons` run on background threads at the same time as the main
/// thread's calls; they read only the process, audio and window services, the tunables and the
/// desktop's fixed identifier tables, and keep no state of their own.
class CarefulHoldPolicy final : public HoldPolicy {
 public:
  /// Adds to a named counter (the statistics counters); may be empty.
  using CountFn = std::function<void(std::string_view name, std::int64_t amount)>;

  /// The services the policy asks; every reference must outlive it.
  struct Services {
    const settings::Preferences& prefs;
    const settings::Tunables& tunables;
    const platform::MainLoop& loop;
    const platform::Workspace& workspace;
    platform::ProcessInfo& processes;
    platform::Audio& audio;
    platform::WindowList& windows;
  };

  CarefulHoldPolicy(Services services, CountFn count);

  [[nodiscard]] bool isGuarded(Combo combo) const override;
  [[nodiscard]] HoldTime holdDuration(Combo combo, const std::string& rule) override;
  [[nodiscard]] bool isCarefulNow() override;
  [[nodiscard]] std::string carefulReason() override;
  [[nodiscard]] bool hasUnsavedWork(const platform::RunningApp& app) override;
  [[nodiscard]] std::vector<std::string> busyReasons(const platform::RunningApp& app) override;
  /// Adds one to the counter "hour.HH" (the local hour, two digits), whatever the combination: the
  /// statistics want to know at what time of day accidents happen, and the presses are already
  /// counted per combination elsewhere.
  void recordAttemptHour(Combo combo) override;

  /// The bundle identifier belongs to a terminal emulator (the built-in list or this desktop's).
  [[nodiscard]] bool isTerminal(const std::string& bundleID) const;

 private:
  Services s_;
  CountFn count_;
};

/// `root` and its descendants, breadth first, each once, at most `cap` processes.
[[nodiscard]] std::vector<std::int32_t> processTree(platform::ProcessInfo& processes, std::int32_t root,
                                                    std::size_t cap = kMaxTreeProcesses);

/// The first process after the first one in `tree` whose command is not a shell or multiplexer:
/// its name ("" when it has an empty one), or nothing when there is none.
[[nodiscard]] std::optional<std::string> runningCommand(platform::ProcessInfo& processes,
                                                        const std::vector<std::int32_t>& tree);

/// The CPU load of `pids` over a sample of `sampleMs` milliseconds, in percent of one core
/// (sleeps through the contract, so only ever on a background thread).
[[nodiscard]] double sampleCpuPercent(platform::ProcessInfo& processes, const std::vector<std::int32_t>& pids,
                                      double sampleMs);

/// A window title that marks a document with unsaved changes, in one of the ways Linux editors do.
[[nodiscard]] bool titleShowsUnsavedWork(std::string_view title);

}  // namespace tarry::guard
