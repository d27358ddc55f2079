#pragma once

#include "actions/undo.h"
#include "guard/hud_display.h"
#include "platform/alerts.h"
#include "platform/workspace.h"

#include <vector>

namespace tarry::settings {
class Preferences;
class Tunables;
}  // namespace tarry::settings

namespace tarry::common {
class Counters;
}  // namespace tarry::common

namespace tarry::actions {

struct QuitOthersDeps {
  platform::Workspace& workspace;
  Undo& undo;
  platform::Alerts& alerts;
  const settings::Preferences& prefs;
  const settings::Tunables& tunables;
  common::Counters& counters;
  guard::HudDisplay& hud;
};

/// Quit All Other Apps: after one confirmation, asks every other regular app to quit, politely,
/// and lets Undo Quit bring them back. NOTE: main thread only.
class QuitOthers final {
 public:
  explicit QuitOthers(QuitOthersDeps deps) : deps_(deps) {}

  /// The menu command: the confirmation, the quits, the batch record and its banner.
  void run();
  /// The apps it would ask to quit now: every regular app but this program, the frontmost app,
  /// the never-quit set and the apps whose rule is "never".
  [[nodiscard]] std::vector<platform::RunningApp> targets();

 private:
  QuitOthersDeps deps_;
};

}  // namespace tarry::actions
