#include "desktop/actions_wiring.h"

#include "actions/quit_others.h"
#include "actions/ram_saver.h"
#include "diagnostics/log.h"
#include "platform/linux/desktop_launcher.h"
#include "platform/qt/qt_dbus_activation.h"

#include <cstdlib>

namespace tarry::desktop {

struct AppActions::Parts {
  explicit Parts(const AppActionsDeps& d)
      : deps(d),
        launcher(d.entries, platform::qt::activateOnSessionBus),
        undo(actions::UndoDeps{d.loop, d.workspace, d.windows, launcher, d.keys, d.prefs, d.tunables,
                               d.counters, d.hud}),
        others(actions::QuitOthersDeps{d.workspace, undo, d.alerts, d.prefs, d.tunables, d.counters, d.hud}),
        saver(actions::RamSaverDeps{d.loop, d.workspace, d.processes, undo, d.prefs, d.tunables, d.counters,
                                    d.hud}) {}

  AppActionsDeps deps;
  platform::os::DesktopLauncher launcher;
  actions::Undo undo;
  actions::QuitOthers others;
  actions::RamSaver saver;
  platform::Scheduled debugQuitOthers;
  std::shared_ptr<char> alive = std::make_shared<char>();
};

AppActions::AppActions(AppActionsDeps deps) : parts_(std::make_unique<Parts>(deps)) {
  diagnostics::Log* log = &deps.log;
  parts_->undo.onLog = [log](const std::string& line) { log->log(line); };
  parts_->saver.onRunDone = [log](int quit, std::int64_t mb) {
    log->log("RAM Saver: " + std::to_string(quit) + " idle apps quit, " + std::to_string(mb) + " MB");
  };
  // The last-activation table follows the workspace's watcher thread.
  std::weak_ptr<char> alive = parts_->alive;
  platform::MainLoop* loop = &deps.loop;
  actions::RamSaver* saver = &parts_->saver;
  deps.workspace.setOnActivated([alive, loop, saver](std::int32_t pid) {
    loop->dispatchMain([alive, saver, pid] {
      if (!alive.expired()) saver->noteActivated(pid);
    });
  });
  parts_->saver.reschedule();

  // A hidden debugging aid for desktops without a tray (the end-to-end tests): with
  // TARRY_DEBUG_QUIT_OTHERS_AFTER=<seconds>, Quit All Other Apps runs once that long after start.
  if (const char* after = std::getenv("TARRY_DEBUG_QUIT_OTHERS_AFTER"); after && std::atof(after) > 0) {
    actions::QuitOthers* others = &parts_->others;
    parts_->debugQuitOthers = deps.loop.after(std::atof(after), [others] { others->run(); });
  }
}

AppActions::~AppActions() {
  parts_->deps.workspace.setOnActivated({});
  parts_->alive.reset();
}

guard::UndoHooks& AppActions::undoHooks() { return parts_->undo; }
actions::Undo& AppActions::undo() { return parts_->undo; }
void AppActions::undoLast() { parts_->undo.undo(); }
std::optional<std::string> AppActions::currentUndoTitle() { return parts_->undo.undoTitle(); }
std::vector<actions::RecentApp> AppActions::recents() const { return parts_->undo.recents(); }
void AppActions::reopenRecent(const std::string& path) { parts_->undo.reopenRecent(path); }
void AppActions::clearRecents() { parts_->undo.clearRecents(); }
void AppActions::quitOthers() { parts_->others.run(); }
void AppActions::rescheduleRamSaver() { parts_->saver.reschedule(); }

}  // namespace tarry::desktop
