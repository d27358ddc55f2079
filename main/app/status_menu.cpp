#include "app/status_menu.h"

#include "guard/combo.h"
#include "settings/preferences.h"

#include <cmath>
#include <cstdio>
#include <utility>

namespace tarry::app {
namespace {

using platform::MenuRow;
using platform::MenuRowState;
using platform::RecentRow;

constexpr const char* kAccessibleName = "Tarry";

/// Days since 1970-01-01 of a civil date (proleptic Gregorian), to compare local dates.
std::int64_t daysFromCivil(int year, int month, int day) {
  const int y = year - (month <= 2 ? 1 : 0);
  const int era = (y >= 0 ? y : y - 399) / 400;
  const int yoe = y - era * 400;
  const int mp = (month + 9) % 12;
  const int doy = (153 * mp + 2) / 5 + day - 1;
  const int doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return static_cast<std::int64_t>(era) * 146097 + doe - 719468;
}

MenuRowState rowState(std::string title, bool visible = true, bool enabled = true,
                      std::string shortcut = {}) {
  MenuRowState state;
  state.title = std::move(title);
  state.visible = visible;
  state.enabled = enabled;
  state.shortcut = std::move(shortcut);
  return state;
}

std::string holdText(double seconds) {
  char text[16];
  if (seconds == std::floor(seconds)) {
    std::snprintf(text, sizeof text, "%d", static_cast<int>(seconds));
  } else {
    std::snprintf(text, sizeof text, "%.1f", seconds);
  }
  return text;
}

}  // namespace

std::string headerText(bool tapInstalled, const std::string& tapProblem, bool paused, bool enabled,
                       bool pressTwice, double holdSeconds) {
  const std::string keys(guard::keysText(guard::Shortcut::quit));
  if (!tapInstalled) return tapProblem.empty() ? "Keyboard guard off" : "Keyboard guard off: " + tapProblem;
  // The grabs are in place, yet the guard cannot tell which app a press is for (no window manager
  // announces the active window, the display went away).
  if (!tapProblem.empty()) return "Keyboard guard not working: " + tapProblem;
  if (paused) return "Paused";
  if (!enabled) return "Off";
  if (pressTwice) return "Active, press " + keys + " twice";
  return "Active, hold " + keys + " " + holdText(holdSeconds) + "s";
}

std::string counterRowText(std::int64_t allTime, std::int64_t today) {
  return std::to_string(allTime) + " accidental quit" + (allTime == 1 ? "" : "s") + " blocked · " +
         std::to_string(today) + " today";
}

std::vector<RecentRow> recentRows(const std::optional<platform::Value>& recents) {
  std::vector<RecentRow> rows;
  if (recents && recents->is_array()) {
    for (const platform::Value& entry : *recents) {
      if (!entry.is_object()) continue;
      std::string name;
      std::string path;
      if (const auto it = entry.find("name"); it != entry.end() && it->is_string())
        name = it->get<std::string>();
      if (const auto it = entry.find("path"); it != entry.end() && it->is_string())
        path = it->get<std::string>();
      rows.push_back({RecentRow::Kind::reopen, "Reopen " + (name.empty() ? std::string("app") : name), path});
    }
  }
  if (rows.empty()) return {{RecentRow::Kind::placeholder, "Nothing quit yet", ""}};
  rows.push_back({RecentRow::Kind::separator, "", ""});
  rows.push_back({RecentRow::Kind::clear, "Clear List", ""});
  return rows;
}

std::string shortRelativeTime(double until, const platform::MainLoop& loop) {
  static constexpr std::array<const char*, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const platform::CalendarFields at = loop.localTime(until);
  const platform::CalendarFields now = loop.localTime(loop.now());
  const std::int64_t days =
      daysFromCivil(at.year, at.month, at.day) - daysFromCivil(now.year, now.month, now.day);
  char time[8];
  std::snprintf(time, sizeof time, "%02d:%02d", at.hour, at.minute);
  if (days == 0) return std::string("today, ") + time;
  if (days == 1) return std::string("tomorrow, ") + time;
  char date[32];
  std::snprintf(date, sizeof date, "%d %s %d, ", at.day,
                kMonths[static_cast<std::size_t>((at.month + 11) % 12)], at.year);
  return std::string(date) + time;
}

StatusMenu::StatusMenu(std::unique_ptr<platform::StatusItemView> view, platform::DefaultsStore& store,
                       common::Counters& counters, platform::MainLoop& loop, StatusMenuHooks hooks)
    : view_(std::move(view)), store_(store), counters_(counters), loop_(loop), hooks_(std::move(hooks)) {
  view_->setActions(this);
}

StatusMenu::~StatusMenu() { view_->setActions(nullptr); }

bool StatusMenu::paused() const { return loop_.now() < settings::Preferences(store_).pauseUntil(); }

void StatusMenu::setRow(MenuRow row, MenuRowState state) {
  auto& last = rows_[static_cast<std::size_t>(row)];
  if (last && *last == state) return;
  view_->setRow(row, state);
  last = std::move(state);
}

void StatusMenu::buildMenu() {
  if (built_) return;
  built_ = true;
  const std::string keys(guard::keysText(guard::Shortcut::quit));
  setRow(MenuRow::header, rowState("", true, false));
  setRow(MenuRow::counter, rowState("", true, false));
  setRow(MenuRow::toggle, rowState("Protect " + keys, true, true));
  setRow(MenuRow::pause, rowState("Pause Protection"));
  setRow(MenuRow::pauseFor15, rowState("For 15 minutes"));
  setRow(MenuRow::pauseFor60, rowState("For 1 hour"));
  setRow(MenuRow::pauseTomorrow, rowState("Until tomorrow"));
  setRow(MenuRow::resume, rowState("Resume Now", false));
  setRow(MenuRow::recent, rowState("Recently Quit"));
  setRow(MenuRow::undo,
         rowState("Undo Quit", false, true, std::string(guard::keysText(guard::Shortcut::undo))));
  setRow(MenuRow::stats, rowState("Statistics…"));
  setRow(MenuRow::rules, rowState("App Rules…"));
  setRow(MenuRow::quitOthers, rowState("Quit All Other Apps…"));
  setRow(MenuRow::settings,
         rowState("Settings…", true, true, std::string(guard::keysText(guard::Shortcut::settings))));
  setRow(MenuRow::about, rowState("About Tarry"));
  setRow(MenuRow::checkUpdates, rowState("Check for Updates…"));
  setRow(MenuRow::quit, rowState("Quit Tarry"));
}

void StatusMenu::refreshStatus() {
  const settings::Preferences prefs(store_);
  lastPaused = paused();
  if (!prefs.showMenuBar()) {
    if (shown_) {
      view_->setItemShown(false, kAccessibleName);
      shown_ = false;
      lastCounterTitle.reset();
    }
    return;
  }
  if (!shown_) {
    buildMenu();
    view_->setItemShown(true, kAccessibleName);
    shown_ = true;
    lastCounterTitle.reset();
    icon_.clear();  // a new item starts without an icon
  }

  const bool enabled = prefs.enabled();
  const std::string icon = lastPaused ? "pause.circle" : (enabled ? "command.circle.fill" : "command.circle");
  if (icon != icon_) {
    view_->setIcon(icon);
    icon_ = icon;
  }
  MenuRowState toggle = *rows_[static_cast<std::size_t>(MenuRow::toggle)];
  toggle.checked = enabled;
  setRow(MenuRow::toggle, toggle);

  refreshCounterTitle();

  const bool tap = hooks_.tapInstalled ? hooks_.tapInstalled() : false;
  const auto& why = tap ? hooks_.guardProblem : hooks_.tapProblem;
  const std::string problem = why ? why() : std::string();
  setRow(MenuRow::header,
         rowState(headerText(tap, problem, lastPaused, enabled, prefs.pressTwice(), prefs.holdSeconds()),
                  true, false));
  refreshRows();
}

void StatusMenu::refreshCounterTitle() {
  const settings::Preferences prefs(store_);
  const std::int64_t today = counters_.today("saved");
  if (built_)
    setRow(MenuRow::counter, rowState(counterRowText(counters_.allTime("saved"), today), true, false));
  if (!shown_) return;
  const std::string title =
      prefs.menuCounter() ? std::string(" ").append(std::to_string(today)) : std::string();
  if (lastCounterTitle && *lastCounterTitle == title) return;
  lastCounterTitle = title;
  platform::StatusBadge badge;
  badge.text = title.empty() ? std::string() : title.substr(1);
  badge.toolTip = title.empty() ? std::string(kAccessibleName)
                                : std::string(kAccessibleName) + " · " + badge.text + " blocked today";
  view_->setBadge(badge);
}

void StatusMenu::refreshRows() {
  if (!built_) buildMenu();
  std::vector<RecentRow> recents = recentRows(store_.get("recents"));
  if (!recents_ || *recents_ != recents) {
    view_->setRecents(recents);
    recents_ = std::move(recents);
  }
  setRow(MenuRow::counter,
         rowState(counterRowText(counters_.allTime("saved"), counters_.today("saved")), true, false));

  const std::optional<std::string> undo = hooks_.undoTitle ? hooks_.undoTitle() : std::nullopt;
  MenuRowState undoRow = *rows_[static_cast<std::size_t>(MenuRow::undo)];
  undoRow.visible = undo.has_value();
  if (undo) undoRow.title = *undo;
  setRow(MenuRow::undo, undoRow);

  const bool isPaused = paused();
  const double until = settings::Preferences(store_).pauseUntil();
  setRow(MenuRow::pause,
         rowState(isPaused ? "Paused until " + shortRelativeTime(until, loop_) : "Pause Protection"));
  setRow(MenuRow::resume, rowState("Resume Now", isPaused));
}

void StatusMenu::menuNeedsUpdate() {
  counters_.add("open.menu", 1);
  // The menu is a sound moment for the automatic period check: its counter row reads the period.
  (void)counters_.checkAutoPeriod();
  // The header too: the guard may have come or gone since the last status refresh.
  refreshStatus();
  if (!shown_) refreshRows();
}

void StatusMenu::call(const std::function<void()>& hook, const char* what) {
  if (hook) {
    hook();
  } else if (hooks_.log) {
    hooks_.log(std::string("status menu: ") + what + " is not available in this build");
  }
}

void StatusMenu::chose(MenuRow row) {
  switch (row) {
    case MenuRow::toggle: {
      settings::Preferences prefs(store_);
      prefs.setBool("enabled", !prefs.enabled());
      if (hooks_.refreshSettings) hooks_.refreshSettings();
      refreshStatus();
      return;
    }
    case MenuRow::pauseFor15:
    case MenuRow::pauseFor60:
    case MenuRow::pauseTomorrow: {
      const int minutes = row == MenuRow::pauseFor15 ? 15 : (row == MenuRow::pauseFor60 ? 60 : 0);
      if (hooks_.pauseFor) {
        hooks_.pauseFor(minutes);
      } else if (hooks_.log) {
        hooks_.log("status menu: pause is not available in this build");
      }
      refreshStatus();
      return;
    }
    case MenuRow::resume:
      call(hooks_.resumeNow, "resume");
      refreshStatus();
      return;
    case MenuRow::undo:
      call(hooks_.undoQuit, "Undo Quit");
      return;
    case MenuRow::stats:
      call(hooks_.openStats, "Statistics");
      return;
    case MenuRow::rules:
      call(hooks_.openRules, "App Rules");
      return;
    case MenuRow::quitOthers:
      call(hooks_.quitOthers, "Quit All Other Apps");
      return;
    case MenuRow::settings:
      call(hooks_.openSettings, "Settings");
      return;
    case MenuRow::about:
      call(hooks_.openAbout, "About");
      return;
    case MenuRow::checkUpdates:
      call(hooks_.checkUpdates, "the update check");
      return;
    case MenuRow::quit:
      call(hooks_.quit, "Quit");
      return;
    case MenuRow::header:
    case MenuRow::counter:
    case MenuRow::pause:
    case MenuRow::recent:
      return;  // rows that do nothing themselves
  }
}

void StatusMenu::reopenRecent(const std::string& path) {
  if (hooks_.reopenRecent) {
    hooks_.reopenRecent(path);
  } else if (hooks_.log) {
    hooks_.log("status menu: reopening " + path + " is not available in this build");
  }
}

void StatusMenu::clearRecents() {
  store_.set("recents", platform::Value::array());
  refreshRows();
}

void StatusMenu::iconActivated() { call(hooks_.openSettings, "Settings"); }

}  // namespace tarry::app
