#include "settings/app_rules.h"

#include <cmath>
#include <cstdio>

namespace tarry::settings {

const std::vector<Choice>& ruleChoices() {
  static const std::vector<Choice> choices{
      {"hold", "Normal protection"}, {"short", "Shorter hold"}, {"long", "Longer hold"},
      {"instant", "Quit instantly"}, {"never", "Never quit"},
  };
  return choices;
}

const std::vector<IdleChoice>& idleChoiceTable() {
  static const std::vector<IdleChoice> choices{
      {std::nullopt, "Default"}, {neverCloseHours, "Never close"}, {0.5, "30 min"}, {1.0, "1 h"},
      {2.0, "2 h"},              {4.0, "4 h"},                     {8.0, "8 h"},
  };
  return choices;
}

std::string idleHoursTitle(double hours) {
  char text[32];
  if (hours < 1) {
    std::snprintf(text, sizeof text, "%.0f min", std::round(hours * 60));
  } else if (hours == std::trunc(hours)) {
    std::snprintf(text, sizeof text, "%.0f h", hours);
  } else {
    std::snprintf(text, sizeof text, "%g h", std::round(hours * 100) / 100);
  }
  return text;
}

void AppRules::setIdle(const std::map<std::string, double>& hours) {
  preferences_.setRamSaverApp(hours);
  if (rescheduleRamSaver_) rescheduleRamSaver_();
}

Extras AppRules::extras() {
  return Extras{
      [this] { return onlyListed(); },
      [this](bool on) { setOnlyListed(on); },
      [this] { return idle(); },
      [this](const std::map<std::string, double>& hours) { setIdle(hours); },
  };
}

}  // namespace tarry::settings
