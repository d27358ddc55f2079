#include "app/actions_wiring.h"

#include "diagnostics/log.h"
#include "platform/linux/desktop_launcher.h"
#include "platform/qt/qt_dbus_activation.h"
#include "platform/x11/x11_workspace.h"

namespace tarry::app {

struct AppActions::Parts {
  explicit Parts(const AppActionsDeps& d)
      : deps(d),
        launcher(d.entries, platform::qt::activateOnSessionBus),
        undo(actions::UndoDeps{d.loop, d.workspace, d.windows, launcher, d.keys, d.prefs, d.tunables,
                               d.counters, d.hud}) {}

  AppActionsDeps deps;
  platform::os::DesktopLauncher launcher;
  actions::Undo undo;
};

AppActions::AppActions(AppActionsDeps deps) : parts_(std::make_unique<Parts>(deps)) {
  diagnostics::Log* log = &deps.log;
  parts_->undo.onLog = [log](const std::string& line) { log->log(line); };
}

AppActions::~AppActions() = default;

guard::UndoHooks& AppActions::undoHooks() { return parts_->undo; }
actions::Undo& AppActions::undo() { return parts_->undo; }
void AppActions::undoLast() { parts_->undo.undo(); }
std::optional<std::string> AppActions::currentUndoTitle() { return parts_->undo.undoTitle(); }
std::vector<actions::RecentApp> AppActions::recents() const { return parts_->undo.recents(); }
void AppActions::reopenRecent(const std::string& path) { parts_->undo.reopenRecent(path); }
void AppActions::clearRecents() { parts_->undo.clearRecents(); }
void AppActions::quitOthers() {}
void AppActions::rescheduleRamSaver() {}

}  // namespace tarry::app
