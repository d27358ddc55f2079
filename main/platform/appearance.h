#pragma once

namespace tarry::platform {

enum class AppearanceMode { light, dark, system };

/// The program's light or dark look.
class Appearance {
 public:
  Appearance() = default;
  Appearance(const Appearance&) = delete;
  Appearance& operator=(const Appearance&) = delete;
  virtual ~Appearance() = default;

  /// Forces light or dark, or follows the system.
  virtual void apply(AppearanceMode mode) = 0;
};

}  // namespace tarry::platform
