#pragma once

#include "common/snap.h"
#include "guard/hud_display.h"
#include "platform/workspace.h"

#include <optional>

namespace tarry::guard {

/// What the guard asks of Undo Quit.
class UndoHooks {
 public:
  UndoHooks() = default;
  UndoHooks(const UndoHooks&) = delete;
  UndoHooks& operator=(const UndoHooks&) = delete;
  virtual ~UndoHooks() = default;

  /// Undo Quit is on and the last quit lies within its time window.
  [[nodiscard]] virtual bool canUndo() = 0;
  /// Brings the last quit app back (main thread).
  virtual void restoreLast() = 0;
  /// Background thread: snapshot of the app's windows; nothing when there is none.
  [[nodiscard]] virtual std::optional<common::Snap> capture(const platform::RunningApp& app) = 0;
  /// Main thread, after a quit: keep the snapshot for Undo Quit (may show its hint on the HUD).
  virtual void remember(const platform::RunningApp& app, common::Snap snap, HudDisplay& hud) = 0;
};

}  // namespace tarry::guard
