#pragma once

#include "guard/combo.h"
#include "guard/hold_policy.h"

#include <string>

namespace tarry::settings {
class Preferences;
class Tunables;
}  // namespace tarry::settings

namespace tarry::guard {

/// The hold time for `combo` on an app whose rule word is `rule` ("" for none):
/// 1. base: `holdSeconds` for quit, `closeHold` for close, `logoutHold` for logout;
/// 2. quit only: × `shortHoldMultiplier` for "short", × `longHoldMultiplier` for "long";
/// 3. × `carefulMultiplier` when `carefulNow`;
/// 4. raised to at least 0.5 s, then cut to `maxHoldSec` (in that order, so the cap never pushes
///    a hold below half a second).
[[nodiscard]] HoldTime computeHoldDuration(Combo combo, const std::string& rule, bool carefulNow,
                                           const settings::Preferences& prefs,
                                           const settings::Tunables& tunables);

/// Quit always; close when `closeHold` > 0; logout when `logoutHold` > 0.
[[nodiscard]] bool comboSwitchedOn(Combo combo, const settings::Preferences& prefs);

}  // namespace tarry::guard
