#pragma once

#include "guard/hold_policy.h"

namespace tarry::settings {
class Preferences;
class Tunables;
}  // namespace tarry::settings

namespace tarry::guard {

/// The plain hold policy: the base hold time with the app's rule factor, never careful, never a
/// reason for a longer hold.
class BasicHoldPolicy final : public HoldPolicy {
 public:
  BasicHoldPolicy(const settings::Preferences& prefs, const settings::Tunables& tunables)
      : prefs_(prefs), tunables_(tunables) {}

  [[nodiscard]] bool isGuarded(Combo combo) const override;
  [[nodiscard]] HoldTime holdDuration(Combo combo, const std::string& rule) override;
  [[nodiscard]] bool isCarefulNow() override { return false; }
  [[nodiscard]] bool hasUnsavedWork(const platform::RunningApp& /*app*/) override { return false; }
  [[nodiscard]] std::vector<std::string> busyReasons(const platform::RunningApp& /*app*/) override {
    return {};
  }
  void recordAttemptHour(Combo /*combo*/) override {}

 private:
  const settings::Preferences& prefs_;
  const settings::Tunables& tunables_;
};

}  // namespace tarry::guard
