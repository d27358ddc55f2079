#include "guard/hold_duration.h"

#include "settings/preferences.h"
#include "settings/tunables.h"

#include <algorithm>

namespace tarry::guard {

using settings::T;

HoldTime computeHoldDuration(Combo combo, const std::string& rule, bool carefulNow,
                             const settings::Preferences& prefs, const settings::Tunables& tunables) {
  double seconds = 0;
  switch (combo) {
    case Combo::quit:
      seconds = prefs.holdSeconds();
      if (rule == "short") seconds *= tunables.real(T::shortHoldMultiplier);
      if (rule == "long") seconds *= tunables.real(T::longHoldMultiplier);
      break;
    case Combo::close:
      seconds = prefs.closeHold();
      break;
    case Combo::logout:
      seconds = prefs.logoutHold();
      break;
  }
  if (carefulNow) seconds *= tunables.real(T::carefulMultiplier);
  seconds = std::min(std::max(seconds, 0.5), tunables.real(T::maxHoldSec));
  return HoldTime{seconds, carefulNow};
}

bool comboSwitchedOn(Combo combo, const settings::Preferences& prefs) {
  switch (combo) {
    case Combo::quit: return true;
    case Combo::close: return prefs.closeHold() > 0;
    case Combo::logout: return prefs.logoutHold() > 0;
  }
  return false;
}

}  // namespace tarry::guard
