#pragma once

#include "guard/combo.h"
#include "platform/workspace.h"

#include <string>
#include <vector>

namespace tarry::guard {

/// A computed hold time.
struct HoldTime {
  double seconds = 0;
  /// Careful mode was in force.
  bool careful = false;
};

/// How long a hold must last and whether the target deserves a longer one.
class HoldPolicy {
 public:
  HoldPolicy() = default;
  HoldPolicy(const HoldPolicy&) = delete;
  HoldPolicy& operator=(const HoldPolicy&) = delete;
  virtual ~HoldPolicy() = default;

  /// Quit always; close when `closeHold` > 0; logout when `logoutHold` > 0.
  [[nodiscard]] virtual bool isGuarded(Combo combo) const = 0;
  /// The hold time for `combo` on an app whose rule word is `rule` ("" for none): base time, rule
  /// factor (quit only), careful factor, raised to 0.5 s, cut to `maxHoldSec`.
  [[nodiscard]] virtual HoldTime holdDuration(Combo combo, const std::string& rule) = 0;
  /// Work hours or the microphone call for a longer hold now.
  [[nodiscard]] virtual bool isCarefulNow() = 0;
  /// Why careful mode is in force now, in a few words for the log ("work hours"); empty when it is
  /// not, or when the policy cannot say.
  [[nodiscard]] virtual std::string carefulReason() { return {}; }
  /// Background thread: the app shows unsaved work.
  [[nodiscard]] virtual bool hasUnsavedWork(const platform::RunningApp& app) = 0;
  /// Background thread, slow: reasons the app is busy, in their fixed order; empty = not busy.
  [[nodiscard]] virtual std::vector<std::string> busyReasons(const platform::RunningApp& app) = 0;
  /// Main thread: notes the hour of an attempt (every hold start, every first press).
  virtual void recordAttemptHour(Combo combo) = 0;
};

}  // namespace tarry::guard
