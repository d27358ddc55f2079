#include "guard/basic_hold_policy.h"

#include "guard/hold_duration.h"

namespace tarry::guard {

bool BasicHoldPolicy::isGuarded(Combo combo) const { return comboSwitchedOn(combo, prefs_); }

HoldTime BasicHoldPolicy::holdDuration(Combo combo, const std::string& rule) {
  return computeHoldDuration(combo, rule, isCarefulNow(), prefs_, tunables_);
}

}  // namespace tarry::guard
