#pragma once

#include "guard/undo_hooks.h"

namespace tarry::guard {

/// Undo Quit switched off: nothing to undo, no snapshot taken.
class NoUndo final : public UndoHooks {
 public:
  [[nodiscard]] bool canUndo() override { return false; }
  void restoreLast() override {}
  [[nodiscard]] std::optional<common::Snap> capture(const platform::RunningApp& /*app*/) override {
    return std::nullopt;
  }
  void remember(const platform::RunningApp& /*app*/, common::Snap /*snap*/, HudDisplay& /*hud*/) override {}
};

}  // namespace tarry::guard
