#pragma once

#include <cstdint>
#include <vector>

namespace tarry::platform {

/// Sound and microphone use of a set of processes.
struct ProcessAudioUse {
  /// One of the processes has an output stream that is not paused.
  bool playing = false;
  /// One of the processes records from an input device.
  bool recording = false;
};

/// The session's sound system.
class Audio {
 public:
  Audio() = default;
  Audio(const Audio&) = delete;
  Audio& operator=(const Audio&) = delete;
  virtual ~Audio() = default;

  /// Main thread, at key-press time, so it never blocks: the default input device is running for
  /// some process. False when there is no input device or no sound system.
  [[nodiscard]] virtual bool microphoneInUse() = 0;
  /// Whether per-process use can be reported at all right now.
  [[nodiscard]] virtual bool reportsPerProcess() = 0;
  /// Background thread, may take a bounded moment: the streams owned by any of `pids`. All false
  /// when the answer cannot be had.
  [[nodiscard]] virtual ProcessAudioUse processUse(const std::vector<std::int32_t>& pids) = 0;
};

}  // namespace tarry::platform
