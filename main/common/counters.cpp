#include "common/counters.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>

namespace tarry::common {
namespace {

constexpr const char* kAllSince = "stats.allSince";
constexpr const char* kPeriodSince = "stats.periodSince";
constexpr const char* kAuto = "stats.auto";

/// Counters of earlier versions, kept under one flat key each, and the names they live on as.
/// Earlier versions counted only blocked quits, confirmed quits and protected-app quits.
struct OldCounter {
  const char* oldKey;
  const char* name;
};
constexpr std::array<OldCounter, 3> kOldCounters = {{
    {"savedCount", "saved"},
    {"quitCount", "quit"},
    {"protectedCount", "protected"},
}};

[[noreturn]] void overflow(const std::string& key) {
  std::fprintf(stderr, "tarry: counter %s overflowed 64 bits\n", key.c_str());
  std::abort();
}

std::int64_t integerOf(const platform::Value& v) {
  if (v.is_number_integer()) return v.get<std::int64_t>();
  if (v.is_number_float()) {
    const double d = v.get<double>();
    // NOTE: casting a double outside the range of int64 is undefined; such values read as 0.
    if (std::isfinite(d) && std::fabs(d) < 9.2e18) return static_cast<std::int64_t>(d);
  }
  return 0;
}

}  // namespace

int autoPeriodDays(std::int64_t choice) {
  static constexpr std::array<int, 4> kDays = {0, 1, 7, 30};
  return kDays[static_cast<std::size_t>(std::clamp<std::int64_t>(choice, 0, 3))];
}

std::string Counters::dayPrefix(double secondsSince1970) const {
  const auto f = loop_.localTime(secondsSince1970);
  char text[24];
  std::snprintf(text, sizeof text, "day.%04d%02d%02d.", f.year, f.month, f.day);
  return text;
}

void Counters::addChecked(const std::string& key, std::int64_t amount) {
  const std::int64_t sum = store_.addInteger(key, amount);
  // The store does the addition, so an overflow has to be read from its result. A store that wraps
  // started from sum − amount taken in two's complement, and an overflow shows as that addition not
  // fitting; a store that stops at the end of the range leaves the sum there. No real count gets
  // anywhere near either end, so reaching one is treated as the overflow.
  constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
  constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
  const auto before =
      static_cast<std::int64_t>(static_cast<std::uint64_t>(sum) - static_cast<std::uint64_t>(amount));
  std::int64_t check = 0;
  if (__builtin_add_overflow(before, amount, &check)) overflow(key);
  if ((amount > 0 && sum == kMax) || (amount < 0 && sum == kMin)) overflow(key);
}

void Counters::add(std::string_view name, std::int64_t amount) {
  std::string key;
  key.reserve(name.size() + 20);
  key.append("all.").append(name);
  addChecked(key, amount);
  key.assign("period.").append(name);
  addChecked(key, amount);
  key.assign(dayPrefix(loop_.now())).append(name);
  addChecked(key, amount);
}

std::int64_t Counters::read(const std::string& key) const {
  const auto v = store_.get(key);
  return v ? integerOf(*v) : 0;
}

std::int64_t Counters::today(std::string_view name) const {
  return read(dayPrefix(loop_.now()) + std::string(name));
}

std::int64_t Counters::period(std::string_view name) const { return read("period." + std::string(name)); }

std::int64_t Counters::allTime(std::string_view name) const { return read("all." + std::string(name)); }

int Counters::autoChoice() const {
  const auto v = store_.get(kAuto);
  if (!v) return 0;
  return static_cast<int>(std::clamp<std::int64_t>(integerOf(*v), 0, 3));
}

double Counters::allSince() const {
  const auto v = store_.get(kAllSince);
  return v && v->is_number() ? v->get<double>() : 0;
}

double Counters::periodSince() const {
  const auto v = store_.get(kPeriodSince);
  return v && v->is_number() ? v->get<double>() : 0;
}

void Counters::start() {
  const double now = loop_.now();
  if (!store_.get(kAllSince)) store_.set(kAllSince, now);
  if (!store_.get(kPeriodSince)) store_.set(kPeriodSince, now);
  for (const auto& old : kOldCounters) {
    const auto v = store_.get(old.oldKey);
    if (!v) continue;
    const std::int64_t amount = integerOf(*v);
    if (amount != 0) {
      addChecked(std::string("all.") + old.name, amount);
      addChecked(std::string("period.") + old.name, amount);
    }
    store_.remove(old.oldKey);
  }
  (void)checkAutoPeriod();
}

void Counters::startNewPeriod() {
  for (const auto& key : store_.keys("period.")) store_.remove(key);
  store_.set(kPeriodSince, loop_.now());
}

bool Counters::checkAutoPeriod() {
  const int days = autoPeriodDays(autoChoice());
  if (days < 1) return false;
  if (loop_.now() - periodSince() < days * 86400.0) return false;
  startNewPeriod();
  return true;
}

}  // namespace tarry::common
