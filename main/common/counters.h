#pragma once

#include "platform/defaults_store.h"
#include "platform/main_loop.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace tarry::common {

/// Named counters kept at three grains in the preferences domain: `day.<yyyyMMdd>.<name>` (local
/// date), `period.<name>` (since the period began) and `all.<name>` (all time).
/// NOTE: the day key is formed from the local date at the moment of each add or read, so a new
/// day needs no timer: at local midnight today's values simply read 0.
class Counters final {
 public:
  Counters(platform::DefaultsStore& store, const platform::MainLoop& loop) : store_(store), loop_(loop) {}
  Counters(const Counters&) = delete;
  Counters& operator=(const Counters&) = delete;

  /// Adds `amount` to `all.`+name, `period.`+name and `day.`+today+`.`+name, in that order.
  /// An addition that overflows 64 bits ends the process.
  void add(std::string_view name, std::int64_t amount = 1);

  /// Today's value (0 when never written).
  [[nodiscard]] std::int64_t today(std::string_view name) const;
  /// Value of the current period (0 when never written).
  [[nodiscard]] std::int64_t period(std::string_view name) const;
  /// All-time value (0 when never written).
  [[nodiscard]] std::int64_t allTime(std::string_view name) const;

  /// At launch: stamps `stats.allSince` / `stats.periodSince` when absent, folds the counters of
  /// older versions into their new names, then runs the automatic period check.
  void start();
  /// Drops every `period.` key and stamps `stats.periodSince` with the current time.
  void startNewPeriod();
  /// Starts a new period when `stats.auto` asks for one and the current period is old enough;
  /// true when it did.
  bool checkAutoPeriod();
  /// The periodic check run by the permission poll; the same as `checkAutoPeriod`.
  void dayTick() { (void)checkAutoPeriod(); }

  /// `stats.auto` clamped to 0 … 3 (0 never, 1 daily, 2 weekly, 3 monthly).
  [[nodiscard]] int autoChoice() const;
  /// Seconds since 1970 of `stats.allSince` / `stats.periodSince`; 0 when absent.
  [[nodiscard]] double allSince() const;
  [[nodiscard]] double periodSince() const;

  /// "day.yyyyMMdd." for the local date of `secondsSince1970`.
  [[nodiscard]] std::string dayPrefix(double secondsSince1970) const;

 private:
  [[nodiscard]] std::int64_t read(const std::string& key) const;
  void addChecked(const std::string& key, std::int64_t amount);

  platform::DefaultsStore& store_;
  const platform::MainLoop& loop_;
};

/// Days between automatic new periods for a `stats.auto` choice (clamped to 0 … 3): 0, 1, 7, 30.
[[nodiscard]] int autoPeriodDays(std::int64_t choice);

}  // namespace tarry::common
