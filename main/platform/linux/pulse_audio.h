#pragma once

#include "platform/audio.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace tarry::platform::os {

/// Sound use through libpulse, which PulseAudio and PipeWire's pulse server both speak.
///
/// A threaded main loop keeps a subscription to the server and source events and caches whether
/// the default source is RUNNING, so `microphoneInUse` is a memory read on the key path. Per-process
/// questions list the streams: sink-inputs that are not corked play, source-outputs on a real
/// (non-monitor) source record; each stream names its owner by its `application.process.id`
/// property.
/// NOTE: with no server (or when it goes away) every answer is "not in use"; the connection is
/// retried after `kReconnect`, then less and less often and nothing ever blocks for longer than the query
/// timeout.
class PulseAudio final : public Audio {
 public:
  static constexpr std::chrono::seconds kReconnect{5};
  /// Each failed attempt doubles the wait before the next, up to this: a desktop without a sound
  /// server should not wake the program every few seconds all day.
  static constexpr std::chrono::seconds kReconnectMax{120};

  /// `server` as libpulse spells it ("unix:/run/user/1000/pulse/native"); empty = the user's
  /// default (PULSE_SERVER, the client configuration, the runtime directory). Never spawns a
  /// daemon.
  explicit PulseAudio(std::string server = {},
                      std::chrono::milliseconds queryTimeout = std::chrono::milliseconds(500));
  ~PulseAudio() override;

  [[nodiscard]] bool microphoneInUse() override;
  /// True while connected to a server.
  [[nodiscard]] bool reportsPerProcess() override;
  [[nodiscard]] ProcessAudioUse processUse(const std::vector<std::int32_t>& pids) override;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace tarry::platform::os
