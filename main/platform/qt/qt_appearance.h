#pragma once

#include "platform/appearance.h"

#include <QPalette>

namespace tarry::platform::qt {

/// The look of the program's own windows: the desktop's palette ("system"), or a forced light or
/// dark palette.
class QtAppearance final : public Appearance {
 public:
  void apply(AppearanceMode mode) override;

 private:
  bool haveSystem_ = false;
  QPalette system_;
};

}  // namespace tarry::platform::qt
