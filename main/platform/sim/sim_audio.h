#pragma once

#include "platform/audio.h"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <set>
#include <vector>

namespace tarry::platform::sim {

/// A scripted sound system: the microphone switch and the pids that play or record.
class SimAudio final : public Audio {
 public:
  [[nodiscard]] bool microphoneInUse() override { return microphone.load(); }
  [[nodiscard]] bool reportsPerProcess() override { return perProcess.load(); }
  [[nodiscard]] ProcessAudioUse processUse(const std::vector<std::int32_t>& pids) override;

  void setPlaying(std::int32_t pid, bool on);
  void setRecording(std::int32_t pid, bool on);
  /// Number of `processUse` queries answered.
  [[nodiscard]] int queries() const;

  /// The default input device is running.
  std::atomic<bool> microphone{false};
  /// Per-process use can be reported (false = a system that cannot tell).
  std::atomic<bool> perProcess{true};

 private:
  mutable std::mutex mutex_;
  std::set<std::int32_t> playing_;
  std::set<std::int32_t> recording_;
  int queries_ = 0;
};

}  // namespace tarry::platform::sim
