#pragma once

#include "settings/preferences.h"

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tarry::settings {

/// A Ctrl+Q rule: the word stored in `appModes` and the title the window shows for it.
struct Choice {
  std::string raw;
  std::string title;
};

/// A RAM Saver idle limit: hours stored in `ramSaverApp` (nothing = the app has no entry and the
/// global `ramSaverHours` applies) and its title.
struct IdleChoice {
  std::optional<double> hours;
  std::string title;
};

/// The rule of an app without an entry.
inline constexpr const char* defaultRule = "hold";
/// The rule given to an app added by hand while all apps are protected.
inline constexpr const char* addedRule = "never";
/// The `ramSaverApp` value for "never close this app".
/// NOTE: kept exactly; RAM Saver tests for this value.
inline constexpr double neverCloseHours = -1;

/// The Ctrl+Q rules, in the order the window offers them; the default comes first.
[[nodiscard]] const std::vector<Choice>& ruleChoices();
/// The idle limits, in the order the window offers them; "Default" comes first.
[[nodiscard]] const std::vector<IdleChoice>& idleChoiceTable();
/// A short title for idle hours that the table does not offer ("3 h", "45 min", "1.5 h").
[[nodiscard]] std::string idleHoursTitle(double hours);

/// The App Rules window's access to the protect switch and the idle limits.
struct Extras {
  std::function<bool()> onlyListed;
  std::function<void(bool)> setOnlyListed;
  std::function<std::map<std::string, double>()> idle;
  /// Writes the whole dictionary.
  std::function<void(const std::map<std::string, double>&)> setIdle;
};

/// The per-app rules as the preferences keep them: `appModes`, `ramSaverApp` and `onlyListedApps`.
class AppRules final {
 public:
  /// `rescheduleRamSaver` runs after every change of the idle limits (may be empty).
  AppRules(Preferences& preferences, std::function<void()> rescheduleRamSaver)
      : preferences_(preferences), rescheduleRamSaver_(std::move(rescheduleRamSaver)) {}

  /// bundle identifier → rule word; entries that are not strings are dropped.
  [[nodiscard]] std::map<std::string, std::string> rules() const { return preferences_.appModes(); }
  void setRules(const std::map<std::string, std::string>& rules) { preferences_.setAppModes(rules); }
  [[nodiscard]] bool onlyListed() const { return preferences_.onlyListedApps(); }
  void setOnlyListed(bool on) { preferences_.setOnlyListedApps(on); }
  /// bundle identifier → idle hours; entries that are not −1 or in (0, 24] are dropped.
  [[nodiscard]] std::map<std::string, double> idle() const { return preferences_.ramSaverApp(); }
  /// Stores the whole dictionary, then lets the RAM Saver rebuild its timer.
  void setIdle(const std::map<std::string, double>& hours);

  /// The switch and idle limits bound to this object, for the App Rules window.
  /// NOTE: the closures refer to this object, which must outlive them.
  [[nodiscard]] Extras extras();

 private:
  Preferences& preferences_;
  std::function<void()> rescheduleRamSaver_;
};

}  // namespace tarry::settings
