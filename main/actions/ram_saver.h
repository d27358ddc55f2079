#pragma once

#include "actions/undo.h"
#include "guard/hud_display.h"
#include "platform/main_loop.h"
#include "platform/process_info.h"
#include "platform/workspace.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tarry::settings {
class Preferences;
class Tunables;
}  // namespace tarry::settings

namespace tarry::common {
class Counters;
}  // namespace tarry::common

namespace tarry::actions {

struct RamSaverDeps {
  platform::MainLoop& loop;
  platform::Workspace& workspace;
  platform::ProcessInfo& processes;
  Undo& undo;
  const settings::Preferences& prefs;
  const settings::Tunables& tunables;
  common::Counters& counters;
  guard::HudDisplay& hud;
};

/// The RAM Saver: every `ramSaverCheckMin` minutes, quits (politely) the apps left idle longer than
/// their limit and reports the memory that freed. NOTE: main thread only.
class RamSaver final {
 public:
  explicit RamSaver(RamSaverDeps deps);
  ~RamSaver();
  RamSaver(const RamSaver&) = delete;
  RamSaver& operator=(const RamSaver&) = delete;

  /// (Re)builds the timer from `ramSaverCheckMin`, with 20 % tolerance.
  void reschedule();
  /// The app with this pid became the active one now.
  void noteActivated(std::int32_t pid);
  /// One run; does nothing while protection is off or paused, or while the last run is not done.
  void run();
  /// Why the app is kept (nothing: it is a candidate), given its idle limit in seconds, the
  /// uptime now and the frontmost app's pid (0 for none).
  [[nodiscard]] std::optional<std::string> keepReason(const platform::RunningApp& app, double limitSec,
                                                      double now, std::int32_t frontPid);
  /// Seconds since the app was last active (since the watch began when never seen).
  [[nodiscard]] double idleSeconds(std::int32_t pid, double now) const;

  /// Called when a run ended (tests, diagnostics): apps quit and megabytes freed.
  std::function<void(int quit, std::int64_t mb)> onRunDone;

 private:
  /// Memory of the process and its descendants (Pss + SwapPss), in bytes; 0 when unreadable.
  static std::uint64_t treeBytes(platform::ProcessInfo& processes, std::int32_t pid);
  void finish(std::vector<platform::RunningApp> apps, std::vector<std::uint64_t> bytes);

  RamSaverDeps deps_;
  double watchStart_;
  std::map<std::int32_t, double> lastActive_;  // pid → uptime
  platform::Scheduled timer_;
  bool running_ = false;
  std::shared_ptr<char> alive_ = std::make_shared<char>();
};

/// "1023 MB", "1.5 GB".
[[nodiscard]] std::string sizeText(std::int64_t megabytes);

}  // namespace tarry::actions
