#pragma once

#include "actions/undo.h"
#include "common/snap.h"
#include "guard/hud_display.h"
#include "guard/undo_hooks.h"
#include "platform/alerts.h"
#include "platform/desktop_entries.h"
#include "platform/event_tap.h"
#include "platform/main_loop.h"
#include "platform/process_info.h"
#include "platform/window_list.h"
#include "platform/workspace.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tarry::settings {
class Preferences;
class Tunables;
}  // namespace tarry::settings

namespace tarry::diagnostics {
class Log;
}  // namespace tarry::diagnostics

namespace tarry::common {
class Counters;
}  // namespace tarry::common

namespace tarry::desktop {

/// What the app actions work with on an X11 desktop. NOTE: every reference must outlive the
/// `AppActions`.
struct AppActionsDeps {
  platform::MainLoop& loop;
  platform::Workspace& workspace;
  platform::WindowList& windows;
  platform::EventTap& keys;
  platform::DesktopEntries& entries;
  platform::ProcessInfo& processes;
  platform::Alerts& alerts;
  const settings::Preferences& prefs;
  const settings::Tunables& tunables;
  common::Counters& counters;
  guard::HudDisplay& hud;
  diagnostics::Log& log;
};

/// Undo Quit, Quit All Other Apps and the RAM Saver over the X11 desktop: the entry points the
/// status menu and the launch sequence call. Construct it before the guard and hand the guard
/// `undoHooks()`. NOTE: main thread only.
class AppActions final {
 public:
  explicit AppActions(AppActionsDeps deps);
  ~AppActions();
  AppActions(const AppActions&) = delete;
  AppActions& operator=(const AppActions&) = delete;

  /// What the guard calls to capture, remember and undo (the Ctrl+Alt+Z hot key).
  [[nodiscard]] guard::UndoHooks& undoHooks();

  /// The status menu's "Undo Quit" row and Ctrl+Alt+Z.
  void undoLast();
  /// "Undo Quit Firefox", "Undo Quit 3 Apps"; nothing when the row is to be hidden.
  [[nodiscard]] std::optional<std::string> currentUndoTitle();
  /// The Recently Quit submenu, newest first.
  [[nodiscard]] std::vector<actions::RecentApp> recents() const;
  void reopenRecent(const std::string& path);
  void clearRecents();
  /// "Quit All Other Apps…".
  void quitOthers();
  /// Rebuilds the RAM Saver's timer (after a settings change or a remote configuration apply).
  void rescheduleRamSaver();
  /// Direct access for the status menu (its `onChange` refreshes the rows).
  [[nodiscard]] actions::Undo& undo();

 private:
  struct Parts;
  std::unique_ptr<Parts> parts_;
};

}  // namespace tarry::desktop
