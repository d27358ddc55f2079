#pragma once

#include "common/counters.h"
#include "platform/defaults_store.h"
#include "platform/main_loop.h"
#include "platform/status_item.h"

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tarry::app {

/// What the status menu asks of the rest of the program. Every member may be left empty; an
/// empty action hook writes a log line instead.
struct StatusMenuHooks {
  /// The keyboard guard has its grabs in place.
  std::function<bool()> tapInstalled;
  /// Why the keyboard guard is not working, in a few words ("" when unknown).
  std::function<std::string()> tapProblem;
  /// Why the guard, with its grabs in place, cannot work now ("" while it works).
  std::function<std::string()> guardProblem;
  /// Undo Quit's title for its current record ("Undo Quit Mail", "Undo Quit 3 Apps"); nothing
  /// when there is nothing to undo (the row is hidden then).
  std::function<std::optional<std::string>()> undoTitle;
  /// After the protection switch was flipped: the Settings window shows the new state.
  std::function<void()> refreshSettings;
  /// Pause for this many minutes (0 = until tomorrow morning), and its end.
  std::function<void(int)> pauseFor;
  std::function<void()> resumeNow;
  std::function<void()> undoQuit;
  std::function<void(const std::string&)> reopenRecent;
  std::function<void()> openStats;
  std::function<void()> openRules;
  std::function<void()> quitOthers;
  std::function<void()> openSettings;
  std::function<void()> openAbout;
  std::function<void()> checkUpdates;
  std::function<void()> quit;
  /// One line to the application log.
  std::function<void(const std::string&)> log;
};

/// "Active, hold Ctrl+Q 2s" and the other states of the header row. `tapProblem` says why the
/// keyboard guard is off, or, with the grabs in place, why it cannot work.
[[nodiscard]] std::string headerText(bool tapInstalled, const std::string& tapProblem, bool paused,
                                     bool enabled, bool pressTwice, double holdSeconds);
/// "3 accidental quits blocked · 1 today".
[[nodiscard]] std::string counterRowText(std::int64_t allTime, std::int64_t today);
/// The recently-quit submenu for the `recents` preference (absent or not an array = empty).
[[nodiscard]] std::vector<platform::RecentRow> recentRows(const std::optional<platform::Value>& recents);
/// The moment `until` as a short local date and time, with "today" and "tomorrow" for those days:
/// "today, 14:30", "tomorrow, 06:00", "3 Dec 2026, 09:15".
[[nodiscard]] std::string shortRelativeTime(double until, const platform::MainLoop& loop);

/// Presents the status item in the tray and its menu: the icon for on, off and paused, today's
/// count as a badge, the header and counter rows, the pause and recently-quit submenus, Undo Quit
/// and the actions. It owns the view and keeps the same rows for the life of the process.
///
/// NOTE: tray hosts do not all say when the menu opens, so every status refresh also brings the
/// dynamic rows up to date; rows whose look did not change are not sent to the view again.
class StatusMenu final : public platform::StatusMenuActions {
 public:
  StatusMenu(std::unique_ptr<platform::StatusItemView> view, platform::DefaultsStore& store,
             common::Counters& counters, platform::MainLoop& loop, StatusMenuHooks hooks);
  ~StatusMenu() override;
  StatusMenu(const StatusMenu&) = delete;
  StatusMenu& operator=(const StatusMenu&) = delete;

  /// Brings the item (present exactly while `showMenuBar` is on), its icon, the switch, the
  /// header and the counter badge up to date, then the dynamic rows.
  void refreshStatus();
  /// The counter badge and counter row (after a blocked quit).
  void refreshCounterTitle();
  /// Recent apps, counter row, Undo Quit and the pause rows, without counting an opening.
  /// NOTE: an opening (`menuNeedsUpdate`) refreshes the whole status as well.
  void refreshRows();

  // platform::StatusMenuActions
  void chose(platform::MenuRow row) override;
  void reopenRecent(const std::string& path) override;
  void clearRecents() override;
  void menuNeedsUpdate() override;
  void iconActivated() override;

  /// Paused at the last status refresh.
  bool lastPaused = false;
  /// The counter title last given to the item (" 3"), so that an unchanged one is not set again.
  std::optional<std::string> lastCounterTitle;

  [[nodiscard]] platform::StatusItemView& view() { return *view_; }
  [[nodiscard]] bool itemShown() const { return shown_; }

 private:
  void buildMenu();
  void setRow(platform::MenuRow row, platform::MenuRowState state);
  void call(const std::function<void()>& hook, const char* what);
  [[nodiscard]] bool paused() const;

  std::unique_ptr<platform::StatusItemView> view_;
  platform::DefaultsStore& store_;
  common::Counters& counters_;
  platform::MainLoop& loop_;
  StatusMenuHooks hooks_;
  bool built_ = false;
  bool shown_ = false;
  std::string icon_;
  std::array<std::optional<platform::MenuRowState>, platform::kMenuRowCount> rows_;
  std::optional<std::vector<platform::RecentRow>> recents_;
};

}  // namespace tarry::app
