#include "platform/sim/sim_audio.h"

namespace tarry::platform::sim {

ProcessAudioUse SimAudio::processUse(const std::vector<std::int32_t>& pids) {
  const std::lock_guard lock(mutex_);
  ++queries_;
  ProcessAudioUse use;
  if (!perProcess.load()) return use;
  for (const auto pid : pids) {
    use.playing = use.playing || playing_.count(pid) != 0;
    use.recording = use.recording || recording_.count(pid) != 0;
  }
  return use;
}

void SimAudio::setPlaying(std::int32_t pid, bool on) {
  const std::lock_guard lock(mutex_);
  if (on) {
    playing_.insert(pid);
  } else {
    playing_.erase(pid);
  }
}

void SimAudio::setRecording(std::int32_t pid, bool on) {
  const std::lock_guard lock(mutex_);
  if (on) {
    recording_.insert(pid);
  } else {
    recording_.erase(pid);
  }
}

int SimAudio::queries() const {
  const std::lock_guard lock(mutex_);
  return queries_;
}

}  // namespace tarry::platform::sim
