#pragma once

#include <optional>
#include <string_view>

namespace tarry::guard {

/// The guarded key combinations.
enum class Combo { quit = 0, close = 1, logout = 2 };

/// Raw value of "not a guarded combination", as classification reports it.
inline constexpr int kComboNoneRaw = 3;

/// Every key combination the program names to the user: the three guarded ones (same order as
/// `Combo`), the undo hot key and the Settings shortcut.
enum class Shortcut { quit = 0, close = 1, logout = 2, undo = 3, settings = 4 };

/// How a shortcut is written in every text the user sees and in the log, the way Linux desktops
/// name keys: "Ctrl+Q", "Ctrl+W", "Ctrl+Shift+Q", "Ctrl+Alt+Z", "Ctrl+,". NOTE: the one place that
/// spells a combination; texts build on it instead of repeating the letters.
[[nodiscard]] constexpr std::string_view keysText(Shortcut s) {
  switch (s) {
    case Shortcut::quit: return "Ctrl+Q";
    case Shortcut::close: return "Ctrl+W";
    case Shortcut::logout: return "Ctrl+Shift+Q";
    case Shortcut::undo: return "Ctrl+Alt+Z";
    case Shortcut::settings: return "Ctrl+,";
  }
  return "";
}

/// "Ctrl+Q", "Ctrl+W", "Ctrl+Shift+Q".
[[nodiscard]] constexpr std::string_view symbol(Combo c) {
  return keysText(static_cast<Shortcut>(static_cast<int>(c)));
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
