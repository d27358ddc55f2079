#include "settings/choice_lists.h"

#include <cstdio>

namespace tarry::settings {

std::string hourTitle(int hour) {
  char text[16];
  std::snprintf(text, sizeof text, "%02d:00", hour);
  return text;
}

}  // namespace tarry::settings
