#include "settings/choice_lists.h"

#include "guard/combo.h"

#include <cstdio>

namespace tarry::settings {

std::array<std::string, 2> styleTitles() {
  const std::string keys(guard::keysText(guard::Shortcut::quit));
  return {"Hold " + keys, "Press " + keys + " twice"};
}

std::string hourTitle(int hour) {
  char text[16];
  std::snprintf(text, sizeof text, "%02d:00", hour);
  return text;
}

}  // namespace tarry::settings
