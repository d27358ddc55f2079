#include "actions/quit_others.h"

#include "common/app_lists.h"
#include "common/counters.h"
#include "guard/combo.h"
#include "settings/preferences.h"
#include "settings/tunables.h"

namespace tarry::actions {
namespace {

constexpr double kNothingBannerSec = 1.6;
constexpr double kBatchBannerSec = 3.0;

}  // namespace

std::vector<platform::RunningApp> QuitOthers::targets() {
  const auto front = deps_.workspace.frontmostApplication();
  const std::int32_t own = deps_.workspace.ownPid();
  std::vector<platform::RunningApp> out;
  for (const auto& app : deps_.workspace.runningApplications()) {
    if (app.pid == own || (front && app.pid == front->pid) || !app.regular) continue;
    if (common::isNeverQuit(deps_.workspace, deps_.tunables, app.bundleID)) continue;
    if (!app.bundleID.empty() && deps_.prefs.appMode(app.bundleID) == "never") continue;
    out.push_back(app);
  }
  return out;
}

void QuitOthers::run() {
  const auto apps = targets();
  if (apps.empty()) {
    deps_.hud.flash("Nothing else to quit.", deps_.workspace.ownIcon(), kNothingBannerSec);
    return;
  }
  const auto n = static_cast<std::int64_t>(apps.size());
  std::vector<std::string> names;
  for (const auto& app : apps) names.push_back(common::displayName(app));
  platform::AlertSpec alert;
  alert.message = "Quit " + std::to_string(n) + " other " + actions::apps(n) + "?";
  alert.informativeText = common::namesText(names);
  alert.buttons = {"Quit Them", "Cancel"};
  if (deps_.alerts.runModal(alert) != 0) return;

  deps_.counters.add("bulkRuns");
  deps_.counters.add("bulk", n);
  std::vector<QuitEntry> entries;
  for (const auto& app : apps) {
    if (deps_.prefs.undoQuit()) deps_.undo.captureAndKeep(app);
    // A polite request: the app may ask about unsaved work and stay.
    (void)deps_.workspace.terminate(app);
    entries.push_back({app, app.path, common::displayName(app)});
  }
  guard::HudDisplay* hud = &deps_.hud;
  const platform::Icon icon = deps_.workspace.ownIcon();
  deps_.undo.recordBatch(
      std::move(entries), [hud, icon](int recorded, const std::vector<QuitEntry>& /*ended*/) {
        if (recorded < 1) return;
        hud->flash("Quit " + std::to_string(recorded) + " " + actions::apps(recorded) + ". " +
                       std::string(guard::keysText(guard::Shortcut::undo)) + " to undo.",
                   icon, kBatchBannerSec);
      });
}

}  // namespace tarry::actions
