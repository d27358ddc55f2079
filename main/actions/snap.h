#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tarry::actions {

/// One window of a quit app, as captured for Undo Quit.
struct WinSnap {
  std::string title;
  std::string document;  // empty where the desktop cannot tell
  double x = 0;
  double y = 0;
  double width = 0;
  double height = 0;
  bool minimized = false;
};

/// A quit app and its windows, as captured for Undo Quit.
struct Snap {
  std::string bundleID;
  std::string name;
  std::string path;
  std::int32_t pid = 0;
  double at = 0;  // seconds since 1970 of the capture
  std::vector<WinSnap> windows;
};

}  // namespace tarry::actions
