#pragma once

#include <optional>
#include <string_view>

namespace tarry::guard {

/// The guarded key combinations.
enum class Combo { quit = 0, close = 1, logout = 2 };

/// Raw value of "not a guarded combination", as classification reports it.
inline constexpr int kComboNoneRaw = 3;

/// "⌘Q", "⌘W", "⌘⇧Q".
[[nodiscard]] constexpr std::string_view symbol(Combo c) {
  switch (c) {
    case Combo::quit: return "⌘Q";
    case Combo::close: return "⌘W";
    case Combo::logout: return "⌘⇧Q";
  }
  return "";
}

/// The word used in counter names: "quit", "close", "logout".
[[nodiscard]] constexpr std::string_view word(Combo c) {
  switch (c) {
    case Combo::quit: return "quit";
    case Combo::close: return "close";
    case Combo::logout: return "logout";
  }
  return "";
}

}  // namespace tarry::guard
