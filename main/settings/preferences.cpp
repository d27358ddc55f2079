#include "settings/preferences.h"

#include <algorithm>
#include <cmath>
#include <optional>

namespace tarry::settings {
namespace {

using platform::Value;

/// The stored number, or nothing when absent or not a number (JSON Booleans count as 0/1, as a
/// number stored by a Boolean control would).
std::optional<double> number(const platform::DefaultsStore& store, const char* key) {
  const auto v = store.get(key);
  if (!v) return std::nullopt;
  if (v->is_number()) return v->get<double>();
  if (v->is_boolean()) return v->get<bool>() ? 1.0 : 0.0;
  return std::nullopt;
}

/// A hold time as the Ctrl+Q hold is kept: to the nearest half second within 0.5 … 7.0; 2.0 for a value
/// that is not a number.
double halfSeconds(double v) { return std::isfinite(v) ? std::clamp(std::round(2 * v) / 2, 0.5, 7.0) : 2.0; }

int clampedHour(const platform::DefaultsStore& store, const char* key, int fallback) {
  const auto v = number(store, key);
  if (!v || !std::isfinite(*v)) return fallback;
  return static_cast<int>(std::clamp(std::trunc(*v), 0.0, 23.0));
}

}  // namespace

bool Preferences::flagDefaultTrue(const char* key) const {
  const auto v = store_.get(key);
  return v && v->is_boolean() ? v->get<bool>() : true;
}

bool Preferences::flagDefaultFalse(const char* key) const {
  const auto v = store_.get(key);
  return v && v->is_boolean() ? v->get<bool>() : false;
}

double Preferences::holdSeconds() const {
  const auto v = number(store_, "holdSeconds");
  return v ? halfSeconds(*v) : 2.0;
}

void Preferences::setHoldSeconds(double seconds) { setDouble("holdSeconds", halfSeconds(seconds)); }

bool Preferences::pressTwice() const {
  // An Integer key: a stored 0.5 reads as 0, hold style.
  const auto v = number(store_, "style");
  return v && std::trunc(*v) > 0;
}

int Preferences::appearance() const {
  const auto v = number(store_, "appearance");
  if (!v || !std::isfinite(*v)) return 0;
  return static_cast<int>(std::clamp(std::trunc(*v), 0.0, 2.0));
}

int Preferences::workFrom() const { return clampedHour(store_, "workFrom", 9); }
int Preferences::workTo() const { return clampedHour(store_, "workTo", 17); }

double Preferences::closeHold() const {
  const auto v = number(store_, "closeHold");
  return v && std::isfinite(*v) ? *v : 0.0;
}

double Preferences::logoutHold() const {
  const auto v = number(store_, "logoutHold");
  return v && std::isfinite(*v) ? *v : 2.0;
}

double Preferences::ramSaverHours() const {
  const auto v = number(store_, "ramSaverHours");
  if (!v) return 0;
  for (const double allowed : {0.5, 1.0, 2.0, 4.0, 8.0}) {
    if (*v == allowed) return allowed;
  }
  return 0;
}

double Preferences::pauseUntil() const {
  const auto v = number(store_, "pauseUntil");
  return v && std::isfinite(*v) ? *v : 0.0;
}

long long Preferences::lastAnnounceId() const {
  const auto v = number(store_, "lastAnnounceId");
  // Beyond ±2^62 a double no longer converts safely; no identifier gets near that.
  if (!v || !std::isfinite(*v) || std::fabs(*v) > 4.6e18) return 0;
  return static_cast<long long>(*v);
}

std::map<std::string, std::string> Preferences::appModes() const {
  std::map<std::string, std::string> modes;
  const auto v = store_.get("appModes");
  if (!v || !v->is_object()) return modes;
  for (const auto& [bundleID, rule] : v->items()) {
    if (rule.is_string()) modes.emplace(bundleID, rule.get<std::string>());
  }
  return modes;
}

std::string Preferences::appMode(const std::string& bundleID) const {
  const auto v = store_.get("appModes");
  if (!v || !v->is_object()) return {};
  const auto it = v->find(bundleID);
  return it != v->end() && it->is_string() ? it->get<std::string>() : std::string();
}

void Preferences::setAppModes(const std::map<std::string, std::string>& modes) {
  store_.set("appModes", Value(modes));
}

std::map<std::string, double> Preferences::ramSaverApp() const {
  std::map<std::string, double> hours;
  const auto v = store_.get("ramSaverApp");
  if (!v || !v->is_object()) return hours;
  for (const auto& [bundleID, h] : v->items()) {
    if (!h.is_number()) continue;
    const double value = h.get<double>();
    // NOTE: −1 is the stored marker for "never close" and must survive exactly.
    if (value == -1 || (value > 0 && value <= 24)) hours.emplace(bundleID, value);
  }
  return hours;
}

void Preferences::setRamSaverApp(const std::map<std::string, double>& hours) {
  store_.set("ramSaverApp", Value(hours));
}

void Preferences::setOnlyListedApps(bool on) { store_.set("onlyListedApps", on); }
void Preferences::setBool(const char* key, bool value) { store_.set(key, value); }
void Preferences::setInteger(const char* key, long long value) { store_.set(key, value); }
void Preferences::setDouble(const char* key, double value) { store_.set(key, value); }

}  // namespace tarry::settings
