#pragma once

#include "linux/temp_dir.h"  // eventually, TempDir

#include <sys/types.h>

#include <string>
#include <vector>

namespace tarry::testing {

/// A process started for a test, in a process group of its own; destroying it kills the whole
/// group and reaps the leader.
class Spawned final {
 public:
  /// Runs `argv` (looked up in PATH) with the extra `env` entries ("NAME=value") and stdin,
  /// stdout and stderr on /dev/null unless `output` names a file for stdout and stderr.
  explicit Spawned(const std::vector<std::string>& argv, const std::vector<std::string>& env = {},
                   const std::string& output = "/dev/null");
  Spawned(const Spawned&) = delete;
  Spawned& operator=(const Spawned&) = delete;
  ~Spawned();

  [[nodiscard]] pid_t pid() const { return pid_; }
  [[nodiscard]] bool started() const { return pid_ > 0; }
  /// Kills the group and reaps the leader now; returns once it is gone.
  void stop();

 private:
  pid_t pid_ = -1;
};

}  // namespace tarry::testing
