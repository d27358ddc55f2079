#pragma once

#include <string_view>

namespace tarry::platform {

/// Short system sounds.
class Sound {
 public:
  Sound() = default;
  Sound(const Sound&) = delete;
  Sound& operator=(const Sound&) = delete;
  virtual ~Sound() = default;

  /// Plays the named sound ("Pop") without waiting for it; a missing sound is silent.
  virtual void play(std::string_view name) = 0;
};

}  // namespace tarry::platform
