#pragma once

#include "platform/sound.h"

#include <chrono>
#include <memory>
#include <string>
#include <string_view>

namespace tarry::platform::os {

/// Short sounds through libpulse, which PulseAudio and PipeWire's pulse server both speak.
///
/// "Pop" is synthesised once at construction; each play opens a playback stream, writes the samples
/// and drains it on a worker thread of its own, so `play` only flips a flag and wakes that thread.
/// NOTE: at most one play is in flight; plays that arrive meanwhile are dropped, never queued.
/// With no server (or a server that stops answering) every play is silent: a connection attempt
/// gives up after `timeout`, and the next accepted play tries again. Never spawns a daemon.
class PulseSound final : public Sound {
 public:
  /// `server` as libpulse spells it ("unix:/run/user/1000/pulse/native"); empty = the user's
  /// default (PULSE_SERVER, the client configuration, the runtime directory).
  explicit PulseSound(std::string server = {},
                      std::chrono::milliseconds timeout = std::chrono::milliseconds(1000));
  ~PulseSound() override;

  void play(std::string_view name) override;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace tarry::platform::os
