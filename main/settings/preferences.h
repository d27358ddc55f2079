#pragma once

#include "platform/defaults_store.h"

#include <map>
#include <string>

namespace tarry::settings {

/// Typed access to the user's settings. Every reader carries its own default and clamp, so a key
/// that is absent, of the wrong type or out of range reads as its default or clamped value.
/// NOTE: nothing is cached: every read goes to the store at the moment of use.
class Preferences final {
 public:
  explicit Preferences(platform::DefaultsStore& store) : store_(store) {}

  [[nodiscard]] platform::DefaultsStore& store() const { return store_; }

  // Generic flag readers: absent (or not a Bool) reads as true for the first, false for the second.
  [[nodiscard]] bool flagDefaultTrue(const char* key) const;
  [[nodiscard]] bool flagDefaultFalse(const char* key) const;

  [[nodiscard]] bool enabled() const { return flagDefaultTrue("enabled"); }
  [[nodiscard]] bool showHUD() const { return flagDefaultTrue("showHUD"); }
  [[nodiscard]] bool playSound() const { return flagDefaultTrue("playSound"); }
  [[nodiscard]] bool showMenuBar() const { return flagDefaultTrue("showMenuBar"); }
  [[nodiscard]] bool menuCounter() const { return flagDefaultTrue("menuCounter"); }
  [[nodiscard]] bool unsavedWarn() const { return flagDefaultTrue("unsavedWarn"); }
  [[nodiscard]] bool workWeekdays() const { return flagDefaultTrue("workWeekdays"); }
  [[nodiscard]] bool undoQuit() const { return flagDefaultTrue("undoQuit"); }
  [[nodiscard]] bool busyGuard() const { return flagDefaultTrue("busyGuard"); }
  [[nodiscard]] bool autoUpdate() const { return flagDefaultTrue("autoUpdate"); }
  [[nodiscard]] bool workHours() const { return flagDefaultFalse("workHours"); }
  [[nodiscard]] bool micStrict() const { return flagDefaultFalse("micStrict"); }
  [[nodiscard]] bool onlyListedApps() const { return flagDefaultFalse("onlyListedApps"); }
  [[nodiscard]] bool loginDefaultDone() const { return flagDefaultFalse("loginDefaultDone"); }

  /// Ctrl+Q hold time: round(2v)/2 clamped to 0.5 … 7.0; 2.0 when absent or not a number.
  [[nodiscard]] double holdSeconds() const;
  /// Stores a Ctrl+Q hold time under the same rounding and clamp (2.0 for a value that is not a number).
  void setHoldSeconds(double seconds);
  /// True when `style` > 0 (press Ctrl+Q twice).
  [[nodiscard]] bool pressTwice() const;
  /// `appearance` clamped to 0 … 2.
  [[nodiscard]] int appearance() const;
  /// Hours clamped to 0 … 23; 9 and 17 when absent.
  [[nodiscard]] int workFrom() const;
  [[nodiscard]] int workTo() const;
  /// Ctrl+W and Ctrl+Shift+Q hold times in seconds (0 = not guarded).
  [[nodiscard]] double closeHold() const;
  [[nodiscard]] double logoutHold() const;
  /// One of 0, 0.5, 1, 2, 4, 8; anything else reads as 0.
  [[nodiscard]] double ramSaverHours() const;
  /// Seconds since 1970; 0 = not paused.
  [[nodiscard]] double pauseUntil() const;
  /// Identifier of the last announcement shown; 0 when none (or not a number).
  [[nodiscard]] long long lastAnnounceId() const;
  void setLastAnnounceId(long long id) { setInteger("lastAnnounceId", id); }

  /// Per-app Ctrl+Q rules (bundle identifier → rule word); entries whose value is not a string are
  /// dropped.
  [[nodiscard]] std::map<std::string, std::string> appModes() const;
  void setAppModes(const std::map<std::string, std::string>& modes);
  /// The rule word of one app, or "" when it has none. Cheaper than `appModes()` on the key path.
  [[nodiscard]] std::string appMode(const std::string& bundleID) const;
  /// Per-app RAM Saver idle hours; entries that are not numbers, or not −1 or in (0, 24], are
  /// dropped.
  [[nodiscard]] std::map<std::string, double> ramSaverApp() const;
  /// Writes the whole dictionary.
  /// NOTE: the caller then has RAM Saver rebuild its timer; this class knows no other part.
  void setRamSaverApp(const std::map<std::string, double>& hours);

  void setOnlyListedApps(bool on);
  void setBool(const char* key, bool value);
  void setInteger(const char* key, long long value);
  void setDouble(const char* key, double value);

 private:
  platform::DefaultsStore& store_;
};

}  // namespace tarry::settings
