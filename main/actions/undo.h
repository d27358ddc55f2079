#pragma once

#include "common/snap.h"
#include "guard/hud_display.h"
#include "guard/undo_hooks.h"
#include "platform/app_launcher.h"
#include "platform/event_tap.h"
#include "platform/main_loop.h"
#include "platform/window_list.h"
#include "platform/workspace.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tarry::settings {
class Preferences;
class Tunables;
}  // namespace tarry::settings

namespace tarry::common {
class Counters;
}  // namespace tarry::common

namespace tarry::actions {

/// What Undo Quit works with. NOTE: every reference must outlive the `Undo` and any background
/// work it started.
struct UndoDeps {
  platform::MainLoop& loop;
  platform::Workspace& workspace;
  platform::WindowList& windows;
  platform::AppLauncher& launcher;
  /// Posts the reopen-last-session keys to browsers that restore their own windows.
  platform::EventTap& keys;
  const settings::Preferences& prefs;
  const settings::Tunables& tunables;
  common::Counters& counters;
  guard::HudDisplay& hud;
};

/// One app that Quit All Others or the RAM Saver asked to quit.
struct QuitEntry {
  platform::RunningApp app;
  std::string path;
  std::string name;
};

/// One row of the recently quit list (preference `recents`), newest first.
struct RecentApp {
  std::string name;
  std::string path;
};

/// Undo Quit: snapshots of quit apps, the one undo record that Ctrl+Alt+Z acts on for a short
/// time, the recently quit list, and bringing apps back with their windows where they were.
/// NOTE: main thread only, except `capture`, which only reads the window list.
class Undo final : public guard::UndoHooks {
 public:
  explicit Undo(UndoDeps deps);
  ~Undo() override;
  Undo(const Undo&) = delete;
  Undo& operator=(const Undo&) = delete;

  // What the guard asks.
  /// The undo test: Undo Quit on, a record younger than `undoWindowSec` with a snapshot.
  [[nodiscard]] bool canUndo() override;
  /// Ctrl+Alt+Z: the same as `undo`.
  void restoreLast() override { undo(); }
  /// Any thread: the app's windows now; nothing for this program itself or an app without a path.
  [[nodiscard]] std::optional<common::Snap> capture(const platform::RunningApp& app) override;
  /// After a confirmed quit: keeps the snapshot and waits for the app to end.
  void remember(const platform::RunningApp& app, common::Snap snap, guard::HudDisplay& hud) override;

  /// Captures the app now and keeps the snapshot (Quit All Others, RAM Saver).
  void captureAndKeep(const platform::RunningApp& app);
  /// Keeps a snapshot (replacing one of the same path) and puts the app first in `recents`.
  void keep(common::Snap snap);
  /// Waits (0.25 s polls, at most 8 s from `issuedAt`, an uptime) for the app to end, then makes
  /// the undo record and shows "Quit NAME. Ctrl+Alt+Z to undo."; gives up silently otherwise.
  void recordAfterQuit(const platform::RunningApp& app, const std::string& path, const std::string& name,
                       double issuedAt);
  /// Waits the same way for a batch; records those that ended and have a snapshot, then calls
  /// `completion` with their number and with every entry that ended (recorded or not).
  void recordBatch(std::vector<QuitEntry> entries,
                   std::function<void(int recorded, const std::vector<QuitEntry>& ended)> completion);
  /// Brings back every app of the undo record and reports; the record is used up.
  void undo();
  /// Reopens an app of the recently quit list: restored like an undo when a snapshot exists (and
  /// Undo Quit is on), else simply launched.
  void reopenRecent(const std::string& path);
  /// Empties the recently quit list.
  void clearRecents();
  /// The recently quit list as stored (entries without a path are skipped).
  [[nodiscard]] std::vector<RecentApp> recents() const;
  /// "Undo Quit Firefox", "Undo Quit 3 Apps"; nothing when no undo is possible.
  [[nodiscard]] std::optional<std::string> undoTitle();

  /// Called on the main thread whenever the record or the recents list changed (menus refresh).
  std::function<void()> onChange;
  /// One line for the diagnostic log (main thread).
  std::function<void(const std::string&)> onLog;

  /// The record, for tests and the status menu: affected paths and its date (seconds since 1970).
  struct Record {
    std::vector<std::string> paths;
    double date = 0;
  };
  [[nodiscard]] const std::optional<Record>& record() const { return record_; }
  [[nodiscard]] const common::Snap* snapshot(const std::string& path) const;

 private:
  struct Restore;
  using Done = std::function<void(bool broughtBack)>;

  void restore(const common::Snap& snap, Done done);
  void pollRestore(const std::shared_ptr<Restore>& job, const Done& done);
  void stepRestore(const std::shared_ptr<Restore>& job, std::int32_t pid,
                   std::vector<platform::WindowInfo> live, const Done& done);
  void restoreAll(const std::vector<std::string>& paths);
  void watchEnd(std::vector<std::int32_t> pids, double issuedAt, std::function<void(std::vector<bool>)> done);
  void makeRecord(std::vector<std::string> paths);
  [[nodiscard]] bool restoresOwnSession(const std::string& bundleID) const;
  void changed() const;
  void log(const std::string& line) const;

  UndoDeps deps_;
  std::map<std::string, common::Snap> snaps_;  // by path
  std::optional<Record> record_;
  std::map<std::int64_t, platform::Scheduled> polls_;
  platform::Scheduled expiry_;
  std::int64_t nextPoll_ = 0;
  std::shared_ptr<char> alive_ = std::make_shared<char>();
};

/// "Brought Firefox.", "Couldn't bring back Firefox.", "Brought 3 apps.", "Brought 2 of 3 apps."
[[nodiscard]] std::string undoReport(const std::vector<std::string>& names, int broughtBack);
/// "app" or "apps" after a count.
[[nodiscard]] std::string apps(std::int64_t n);

}  // namespace tarry::actions
