#pragma once

#include <string>
#include <vector>

namespace tarry::platform {

/// Starts applications the way the desktop's launcher does.
/// NOTE: may be called from background threads; a launch returns once the program is started (or
/// asked to start), not when its windows are up.
class AppLauncher {
 public:
  AppLauncher() = default;
  AppLauncher(const AppLauncher&) = delete;
  AppLauncher& operator=(const AppLauncher&) = delete;
  virtual ~AppLauncher() = default;

  /// Starts the application at `path` (a `.desktop` file or an executable) with `documents`
  /// (URLs or file paths; may be empty). False when the path no longer exists or the program
  /// could not be started.
  virtual bool launch(const std::string& path, const std::vector<std::string>& documents) = 0;
};

}  // namespace tarry::platform
