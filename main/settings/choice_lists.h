#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

namespace tarry::settings {

/// One entry of a Settings pop-up: its title and the value stored when it is picked.
struct PopUpChoice {
  std::string_view title;
  double value;
};

// The pop-ups of the Settings window. `style` and `appearance` store the selected index itself.
inline constexpr std::array<std::string_view, 3> kAppearanceTitles = {"Light", "Dark", "Match system"};

/// Ctrl+W hold, seconds.
inline constexpr std::array<PopUpChoice, 4> kCloseHoldChoices = {
    {{"Off", 0}, {"1 second", 1}, {"2 seconds", 2}, {"3 seconds", 3}}};
/// Ctrl+Shift+Q hold, seconds.
inline constexpr std::array<PopUpChoice, 4> kLogoutHoldChoices = {
    {{"Off", 0}, {"2 seconds", 2}, {"3 seconds", 3}, {"5 seconds", 5}}};
/// Global RAM Saver idle threshold, hours.
inline constexpr std::array<PopUpChoice, 6> kRamSaverChoices = {{{"Off", 0},
                                                                 {"After 30 minutes idle", 0.5},
                                                                 {"After 1 hour idle", 1},
                                                                 {"After 2 hours idle", 2},
                                                                 {"After 4 hours idle", 4},
                                                                 {"After 8 hours idle", 8}}};

inline constexpr int kHourCount = 24;

/// Titles of the `style` pop-up: "Hold Ctrl+Q", "Press Ctrl+Q twice".
[[nodiscard]] std::array<std::string, 2> styleTitles();

/// Title of the work-hours entry for `hour`: "09:00".
[[nodiscard]] std::string hourTitle(int hour);

/// The value of the selected entry; a negative index picks the first entry, one past the end the
/// last.
template <std::size_t N>
[[nodiscard]] constexpr double choiceValue(const std::array<PopUpChoice, N>& choices, int index) {
  if (index <= 0) return choices.front().value;
  if (static_cast<std::size_t>(index) >= N) return choices.back().value;
  return choices[static_cast<std::size_t>(index)].value;
}

/// The index of the entry holding `value`, or 0 when no entry does.
template <std::size_t N>
[[nodiscard]] constexpr int choiceIndex(const std::array<PopUpChoice, N>& choices, double value) {
  for (std::size_t i = 0; i < N; ++i) {
    if (choices[i].value == value) return static_cast<int>(i);
  }
  return 0;
}

/// The hour stored for the selected work-hours entry (index = hour; a negative index is 0).
[[nodiscard]] constexpr int hourForIndex(int index) {
  return index < 0 ? 0 : (index >= kHourCount ? kHourCount - 1 : index);
}

}  // namespace tarry::settings
