#pragma once

#include "platform/screens.h"

#include <optional>
#include <vector>

namespace tarry::platform::sim {

/// Screens and a pointer that the test sets up.
class SimScreens final : public Screens {
 public:
  [[nodiscard]] std::vector<Rect> screenFrames() const override { return frames; }
  [[nodiscard]] std::optional<Rect> mainScreenFrame() const override {
    if (main) return main;
    if (!frames.empty()) return frames.front();
    return std::nullopt;
  }
  [[nodiscard]] Point pointerLocation() const override { return pointer; }

  std::vector<Rect> frames;
  /// The main screen when set; otherwise the first of `frames`.
  std::optional<Rect> main;
  Point pointer;
};

}  // namespace tarry::platform::sim
