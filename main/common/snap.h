#pragma once

#include "platform/window_list.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tarry::common {

/// One window of a quit app, as captured for Undo Quit: the window list's own record (its `id` is
/// the captured window's, which is gone once the app has quit).
using WinSnap = platform::WindowInfo;

/// A quit app and its windows, as captured for Undo Quit.
struct Snap {
  std::string bundleID;
  std::string name;
  /// What relaunches it (a `.desktop` file or an executable); the key snapshots are matched by.
  std::string path;
  std::int32_t pid = 0;
  double at = 0;  // seconds since 1970 of the capture
  std::vector<WinSnap> windows;
};

}  // namespace tarry::common
