#pragma once

#include "spawned.h"

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace tarry::testing {

/// A private PulseAudio daemon with a null sink "speakers" (whose monitor is a source too), in a
/// runtime directory of its own; clients started with `env` find it, and nothing autospawns.
class PulseDaemon final {
 public:
  [[nodiscard]] std::string socket() const { return dir / "native"; }
  [[nodiscard]] std::string server() const { return "unix:" + socket(); }
  [[nodiscard]] std::string log() const { return dir / "daemon.log"; }

  /// Starts the daemon with `modules` loaded as well; true once it answers.
  bool start(const std::vector<std::string>& modules = {}) {
    std::vector<std::string> argv{"pulseaudio", "-n", "--daemonize=no", "--exit-idle-time=-1", "--use-pid-file=no",
                                  "--disable-shm=yes", "--system=no",
                                  "--load=module-native-protocol-unix auth-anonymous=1 socket=" + socket(),
                                  "--load=module-null-sink sink_name=speakers"};
    for (const auto& module : modules) argv.push_back("--load=" + module);
    process = std::make_unique<Spawned>(argv, env, log());
    const auto answers = [&] { return std::system(("pactl -s " + server() + " info >/dev/null 2>&1").c_str()) == 0; };
    return process->started() && eventually(answers);
  }
  void stop() { process.reset(); }

  TempDir dir;
  std::vector<std::string> env{"HOME=" + dir.path(), "XDG_RUNTIME_DIR=" + dir.path(),
                               "PULSE_RUNTIME_PATH=" + dir.path(), "PULSE_SERVER=" + server()};
  std::unique_ptr<Spawned> process;
};

}  // namespace tarry::testing
