#pragma once

#include "guard/careful_hold_policy.h"
#include "guard/hold_policy.h"
#include "platform/sim/journal.h"
#include "platform/sim/sim_audio.h"
#include "platform/sim/sim_process_info.h"
#include "platform/window_list.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace tarry::settings {
class Preferences;
class Tunables;
}  // namespace tarry::settings

namespace tarry::common {
class Counters;
}  // namespace tarry::common

namespace tarry::simrun {

/// Window titles per process, set by the script.
class ScriptedWindows final : public platform::WindowList {
 public:
  [[nodiscard]] std::vector<platform::WindowInfo> windowsOf(std::int32_t pid) override;
  bool setFrame(std::uint32_t /*id*/, double /*x*/, double /*y*/, double /*width*/, double /*height*/,
                bool /*minimized*/) override {
    return false;
  }
  std::map<std::int32_t, std::vector<std::string>> titles;
};

/// The careful hold policy, writing each answer to the transcript in the scripted policy's words
/// ("policy unsaved pid=N -> yes", "policy busy pid=N -> …", "policy hour quit").
class RecordingCarefulPolicy final : public guard::HoldPolicy {
 public:
  RecordingCarefulPolicy(guard::CarefulHoldPolicy::Services services, guard::CarefulHoldPolicy::CountFn count,
                         platform::sim::Journal& journal)
      : inner_(services, std::move(count)), journal_(journal) {}
  [[nodiscard]] bool isGuarded(guard::Combo combo) const override { return inner_.isGuarded(combo); }
  [[nodiscard]] guard::HoldTime holdDuration(guard::Combo combo, const std::string& rule) override {
    return inner_.holdDuration(combo, rule);
  }
  [[nodiscard]] bool isCarefulNow() override { return inner_.isCarefulNow(); }
  [[nodiscard]] std::string carefulReason() override { return inner_.carefulReason(); }
  [[nodiscard]] bool hasUnsavedWork(const platform::RunningApp& app) override;
  [[nodiscard]] std::vector<std::string> busyReasons(const platform::RunningApp& app) override;
  void recordAttemptHour(guard::Combo combo) override;

 private:
  guard::CarefulHoldPolicy inner_;
  platform::sim::Journal& journal_;
};

/// Careful mode on simulated processes, sound and windows. `careful on` makes the next `start`
/// hand this policy to the guard instead of the scripted answers.
struct CarefulSim {
  CarefulSim(const settings::Preferences& prefs, const settings::Tunables& tunables,
             const platform::MainLoop& loop, const platform::Workspace& workspace, common::Counters& counters,
             platform::sim::Journal& journal);

  platform::sim::SimProcessInfo processes;
  platform::sim::SimAudio audio;
  ScriptedWindows windows;
  RecordingCarefulPolicy policy;
  bool on = false;
};

}  // namespace tarry::simrun
