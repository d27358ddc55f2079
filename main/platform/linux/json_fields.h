#pragma once

#include <nlohmann/json.hpp>

#include <string>

namespace tarry::platform::os {

/// A member of a compositor's JSON report (sway's tree, KWin's and GNOME Shell's window reports):
/// its text, or "" when absent or not a string.
inline std::string textOf(const nlohmann::json& object, const char* key) {
  const auto it = object.find(key);
  return it != object.end() && it->is_string() ? it->get<std::string>() : std::string();
}

/// The same for a number: 0 when absent or not a number.
inline double numberOf(const nlohmann::json& object, const char* key) {
  const auto it = object.find(key);
  return it != object.end() && it->is_number() ? it->get<double>() : 0.0;
}

}  // namespace tarry::platform::os
