#include "actions/undo.h"

#include "common/counters.h"
#include "guard/combo.h"
#include "settings/preferences.h"
#include "settings/tunables.h"

#include <algorithm>
#include <set>
#include <utility>

namespace tarry::actions {
namespace {

using platform::RunningApp;
using platform::WindowInfo;
using settings::T;

constexpr double kPollSec = 0.25;
constexpr double kQuitWaitSec = 8.0;
constexpr double kQuitBannerSec = 2.4;
constexpr double kReportBannerSec = 1.6;
constexpr const char* kRecentsKey = "recents";

/// Browsers that reopen their last session with Ctrl+Shift+T after a fresh start.
const std::vector<std::string>& builtInSessionRestorers() {
  static const std::vector<std::string> ids{
      "com.google.Chrome",   "com.google.Chrome.beta", "com.google.Chrome.canary",
      "com.brave.Browser",   "com.microsoft.edgemac",  "company.thebrowser.Browser",
      "com.vivaldi.Vivaldi", "org.chromium.Chromium",  "com.apple.Safari"};
  return ids;
}

std::string undoSuffix() { return ". " + std::string(guard::keysText(guard::Shortcut::undo)) + " to undo."; }

}  // namespace

std::string apps(std::int64_t n) { return n == 1 ? "app" : "apps"; }

std::string undoReport(const std::vector<std::string>& names, int broughtBack) {
  const int n = static_cast<int>(names.size());
  if (n == 1) return broughtBack == 1 ? "Brought " + names[0] + "." : "Couldn't bring back " + names[0] + ".";
  if (broughtBack >= n) return "Brought " + std::to_string(n) + " apps.";
  return "Brought " + std::to_string(broughtBack) + " of " + std::to_string(n) + " apps.";
}

/// One app coming back: launched, then its windows paired and put in place as they appear.
struct Undo::Restore {
  common::Snap snap;
  double deadline = 0;
  bool running = false;
  bool keysSent = false;
  std::vector<bool> paired;                                 // per snapshot window
  std::set<std::uint32_t> taken;                            // live windows already paired
  std::vector<std::pair<WindowInfo, std::uint32_t>> again;  // placed last step: position again
  platform::Scheduled next;
};

Undo::Undo(UndoDeps deps) : deps_(deps) {}

Undo::~Undo() { alive_.reset(); }

void Undo::changed() const {
  if (onChange) onChange();
}

void Undo::log(const std::string& line) const {
  if (onLog) onLog(line);
}

// MARK: - Capture and records

std::optional<common::Snap> Undo::capture(const RunningApp& app) {
  if (app.pid == deps_.workspace.ownPid() || app.path.empty()) return std::nullopt;
  common::Snap snap;
  snap.bundleID = app.bundleID;
  snap.name = app.localizedName.empty() ? app.bundleID : app.localizedName;
  snap.path = app.path;
  snap.pid = app.pid;
  snap.at = deps_.loop.now();
  // NOTE: the window list leaves out windows whose frame it cannot read, so they are not moved
  // on restore.
  snap.windows = deps_.windows.windowsOf(app.pid);
  return snap;
}

void Undo::keep(common::Snap snap) {
  const RecentApp entry{snap.name, snap.path};
  snaps_[snap.path] = std::move(snap);

  std::vector<RecentApp> list = recents();
  std::erase_if(list, [&](const RecentApp& r) { return r.path == entry.path; });
  list.insert(list.begin(), entry);
  const auto max = static_cast<std::size_t>(std::max<std::int64_t>(deps_.tunables.integer(T::recentsMax), 1));
  if (list.size() > max) list.resize(max);
  platform::Value array = platform::Value::array();
  for (const auto& r : list) array.push_back({{"name", r.name}, {"path", r.path}});
  deps_.prefs.store().set(kRecentsKey, std::move(array));
  changed();
}

void Undo::captureAndKeep(const RunningApp& app) {
  if (auto snap = capture(app)) keep(std::move(*snap));
}

void Undo::remember(const RunningApp& app, common::Snap snap, guard::HudDisplay& /*hud*/) {
  const std::string path = snap.path;
  const std::string name = snap.name;
  keep(std::move(snap));
  recordAfterQuit(app, path, name, deps_.loop.uptime());
}

std::vector<RecentApp> Undo::recents() const {
  std::vector<RecentApp> out;
  const auto value = deps_.prefs.store().get(kRecentsKey);
  if (!value || !value->is_array()) return out;
  for (const auto& item : *value) {
    if (!item.is_object()) continue;
    const auto path = item.find("path");
    if (path == item.end() || !path->is_string() || path->get<std::string>().empty()) continue;
    const auto name = item.find("name");
    out.push_back({name != item.end() && name->is_string() ? name->get<std::string>() : std::string(),
                   path->get<std::string>()});
  }
  return out;
}

void Undo::clearRecents() {
  deps_.prefs.store().remove(kRecentsKey);
  changed();
}

void Undo::makeRecord(std::vector<std::string> paths) {
  record_ = Record{std::move(paths), deps_.loop.now()};
  changed();
  // The menu's Undo Quit row goes away when the record expires, without anyone opening the menu.
  std::weak_ptr<char> alive = alive_;
  expiry_ = deps_.loop.after(deps_.tunables.real(T::undoWindowSec), [this, alive] {
    if (!alive.expired()) changed();
  });
}

void Undo::watchEnd(std::vector<std::int32_t> pids, double issuedAt,
                    std::function<void(std::vector<bool>)> done) {
  const std::int64_t id = nextPoll_++;
  std::weak_ptr<char> alive = alive_;
  // NOTE: a plain function object that re-arms itself through `polls_`; it holds no strong
  // reference to itself, and nothing once the Undo is gone.
  auto step = std::make_shared<std::function<void()>>();
  *step = [this, alive, id, pids = std::move(pids), issuedAt, done = std::move(done),
           weakStep = std::weak_ptr<std::function<void()>>(step)] {
    if (alive.expired()) return;
    std::vector<bool> ended;
    bool all = true;
    for (const std::int32_t pid : pids) {
      ended.push_back(deps_.workspace.isTerminated(pid));
      all = all && ended.back();
    }
    if (all || deps_.loop.uptime() - issuedAt >= kQuitWaitSec) {
      auto keepStep = weakStep.lock();  // this closure lives in *keepStep until the erase below
      polls_.erase(id);
      done(std::move(ended));
      return;
    }
    if (auto self = weakStep.lock()) polls_[id] = deps_.loop.after(kPollSec, [self] { (*self)(); });
  };
  // The first look is at once; the poll's own closure keeps the step alive between looks.
  auto first = step;
  polls_[id] = deps_.loop.post([first] { (*first)(); });
}

void Undo::recordAfterQuit(const RunningApp& app, const std::string& path, const std::string& name,
                           double issuedAt) {
  platform::Icon icon = app.icon;
  watchEnd({app.pid}, issuedAt, [this, path, name, icon](const std::vector<bool>& ended) {
    // An app still running after 8 s refused or asked about unsaved work: no record, no banner.
    if (!ended.front()) {
      log("undo: " + name + " did not quit within 8 s; nothing to undo");
      return;
    }
    makeRecord({path});
    log("undo: " + name + " quit; " + std::string(guard::keysText(guard::Shortcut::undo)) +
        " can bring it back");
    deps_.hud.flash("Quit " + name + undoSuffix(), icon, kQuitBannerSec);
  });
}

void Undo::recordBatch(std::vector<QuitEntry> entries,
                       std::function<void(int, const std::vector<QuitEntry>&)> completion) {
  std::vector<std::int32_t> pids;
  for (const auto& e : entries) pids.push_back(e.app.pid);
  watchEnd(std::move(pids), deps_.loop.uptime(),
           [this, entries = std::move(entries),
            completion = std::move(completion)](const std::vector<bool>& ended) {
             std::vector<QuitEntry> gone;
             std::vector<std::string> paths;
             for (std::size_t i = 0; i < entries.size(); ++i) {
               if (!ended[i]) continue;
               gone.push_back(entries[i]);
               if (snaps_.count(entries[i].path) != 0 &&
                   std::find(paths.begin(), paths.end(), entries[i].path) == paths.end()) {
                 paths.push_back(entries[i].path);
               }
             }
             const int recorded = static_cast<int>(paths.size());
             log("undo: " + std::to_string(gone.size()) + " of " + std::to_string(entries.size()) +
                 " apps quit, " + std::to_string(recorded) + " can be brought back");
             if (recorded > 0) makeRecord(std::move(paths));
             if (completion) completion(recorded, gone);
           });
}

const common::Snap* Undo::snapshot(const std::string& path) const {
  const auto it = snaps_.find(path);
  return it == snaps_.end() ? nullptr : &it->second;
}

bool Undo::canUndo() {
  if (!deps_.prefs.undoQuit() || !record_) return false;
  if (deps_.loop.now() - record_->date >= deps_.tunables.real(T::undoWindowSec)) return false;
  return std::any_of(record_->paths.begin(), record_->paths.end(),
                     [this](const std::string& p) { return snaps_.count(p) != 0; });
}

std::optional<std::string> Undo::undoTitle() {
  if (!canUndo()) return std::nullopt;
  if (record_->paths.size() == 1) {
    const common::Snap* snap = snapshot(record_->paths.front());
    return "Undo Quit " + (snap ? snap->name : std::string("app"));
  }
  return "Undo Quit " + std::to_string(record_->paths.size()) + " Apps";
}

// MARK: - Bringing back

void Undo::undo() {
  if (!canUndo()) return;
  std::vector<std::string> paths = std::move(record_->paths);
  record_.reset();
  expiry_.cancel();
  changed();
  restoreAll(paths);
}

void Undo::reopenRecent(const std::string& path) {
  if (deps_.prefs.undoQuit() && snaps_.count(path) != 0) {
    restoreAll({path});
    return;
  }
  platform::AppLauncher* launcher = &deps_.launcher;
  deps_.loop.background([launcher, path] { (void)launcher->launch(path, {}); });
}

void Undo::restoreAll(const std::vector<std::string>& paths) {
  struct Tally {
    std::vector<std::string> names;
    int pending = 0;
    int back = 0;
  };
  auto tally = std::make_shared<Tally>();
  std::vector<common::Snap> todo;
  for (const auto& path : paths) {
    const common::Snap* snap = snapshot(path);
    tally->names.push_back(snap ? snap->name : path);
    if (snap) todo.push_back(*snap);
  }
  tally->pending = static_cast<int>(todo.size());
  const auto report = [this, tally] {
    log("undo: brought back " + std::to_string(tally->back) + " of " + std::to_string(tally->names.size()));
    deps_.counters.add("reopened", tally->back);
    deps_.hud.flash(undoReport(tally->names, tally->back), deps_.workspace.ownIcon(), kReportBannerSec);
  };
  if (todo.empty()) {
    report();
    return;
  }
  for (const auto& snap : todo) {
    restore(snap, [tally, report](bool back) {
      if (back) ++tally->back;
      if (--tally->pending == 0) report();
    });
  }
}

bool Undo::restoresOwnSession(const std::string& bundleID) const {
  const auto& fixed = builtInSessionRestorers();
  if (std::find(fixed.begin(), fixed.end(), bundleID) != fixed.end()) return true;
  const auto linux = deps_.workspace.identifierEquivalents(platform::IdentifierSet::sessionRestorers);
  return std::find(linux.begin(), linux.end(), bundleID) != linux.end();
}

void Undo::restore(const common::Snap& snap, Done done) {
  auto job = std::make_shared<Restore>();
  job->snap = snap;
  // A window with neither document nor title can never be paired: it is left alone from the start.
  for (const auto& w : snap.windows) job->paired.push_back(w.document.empty() && w.title.empty());
  std::vector<std::string> documents;
  for (const auto& w : snap.windows) {
    if (!w.document.empty() && std::find(documents.begin(), documents.end(), w.document) == documents.end()) {
      documents.push_back(w.document);
    }
  }
  std::weak_ptr<char> alive = alive_;
  platform::MainLoop* loop = &deps_.loop;
  platform::AppLauncher* launcher = &deps_.launcher;
  loop->background([this, alive, loop, launcher, job, documents, done = std::move(done)] {
    if (alive.expired()) return;
    const bool launched = launcher->launch(job->snap.path, documents);
    loop->dispatchMain([this, alive, job, launched, done] {
      if (alive.expired()) return;
      if (!launched) {
        log("undo: cannot start " + job->snap.path);
        done(false);
        return;
      }
      job->deadline = deps_.loop.uptime() + deps_.tunables.real(T::undoRestoreTimeoutSec);
      pollRestore(job, done);
    });
  });
}

void Undo::pollRestore(const std::shared_ptr<Restore>& job, const Done& done) {
  std::weak_ptr<char> alive = alive_;
  platform::MainLoop* loop = &deps_.loop;
  platform::Workspace* workspace = &deps_.workspace;
  platform::WindowList* windows = &deps_.windows;
  loop->background([this, alive, loop, workspace, windows, job, done] {
    if (alive.expired()) return;
    std::int32_t pid = 0;
    for (const RunningApp& app : workspace->runningApplications()) {
      if (app.pid == job->snap.pid) continue;  // the instance that quit, not yet gone from the lists
      if (app.path == job->snap.path || (!job->snap.bundleID.empty() && app.bundleID == job->snap.bundleID)) {
        pid = app.pid;
        break;
      }
    }
    std::vector<WindowInfo> live = pid > 0 ? windows->windowsOf(pid) : std::vector<WindowInfo>{};
    loop->dispatchMain([this, alive, job, pid, live = std::move(live), done]() mutable {
      if (!alive.expired()) stepRestore(job, pid, std::move(live), done);
    });
  });
}

void Undo::stepRestore(const std::shared_ptr<Restore>& job, std::int32_t pid, std::vector<WindowInfo> live,
                       const Done& done) {
  if (pid > 0) job->running = true;
  // A fresh start of these browsers opens one empty window; Ctrl+Shift+T brings the last session.
  // NOTE: posted keys go to whatever has the focus, so only once the browser itself has it.
  const auto front = !live.empty() && !job->keysSent && restoresOwnSession(job->snap.bundleID)
                         ? deps_.workspace.frontmostApplication()
                         : std::nullopt;
  if (front && front->pid == pid) {
    job->keysSent = true;
    platform::KeyEvent key;
    key.keyCode = platform::kKeyT;
    key.flags = platform::kFlagCommand | platform::kFlagShift;
    key.userData = platform::kOwnEventMarker;
    key.type = platform::EventType::keyDown;
    deps_.keys.post(key);
    key.type = platform::EventType::keyUp;
    deps_.keys.post(key);
  }

  // Pair each snapshot window with a live one: same document first, then same title; each live
  // window at most once.
  std::vector<std::pair<WindowInfo, std::uint32_t>> place;
  const auto pairBy = [&](auto field) {
    for (std::size_t i = 0; i < job->snap.windows.size(); ++i) {
      const WindowInfo& want = job->snap.windows[i];
      if (job->paired[i] || (want.*field).empty()) continue;
      for (const WindowInfo& w : live) {
        if (job->taken.count(w.id) != 0 || w.*field != want.*field) continue;
        job->taken.insert(w.id);
        job->paired[i] = true;
        place.emplace_back(want, w.id);
        break;
      }
    }
  };
  pairBy(&WindowInfo::document);
  pairBy(&WindowInfo::title);

  const bool allPaired = std::all_of(job->paired.begin(), job->paired.end(), [](bool p) { return p; });
  const bool timeUp = deps_.loop.uptime() >= job->deadline;
  const bool finished = timeUp || (job->running && allPaired && place.empty());

  // Position and size now; position again one poll later (an app may move a window while it is
  // resized), and only then minimize, so a minimized window keeps its restored frame.
  auto again = std::move(job->again);
  job->again = place;
  if (finished) {
    again.insert(again.end(), place.begin(), place.end());
    job->again.clear();
  }
  if (!again.empty() || !place.empty()) {
    platform::WindowList* windows = &deps_.windows;
    std::weak_ptr<char> alive = alive_;
    deps_.loop.background([alive, windows, first = place, again] {
      if (alive.expired()) return;
      for (const auto& [want, id] : first)
        windows->setFrame(id, want.x, want.y, want.width, want.height, false);
      for (const auto& [want, id] : again) {
        windows->setFrame(id, want.x, want.y, want.width, want.height, false);
        if (want.minimized) windows->setFrame(id, want.x, want.y, want.width, want.height, true);
      }
    });
  }
  if (finished) {
    if (!job->running) log("undo: " + job->snap.name + " did not come back in time");
    done(job->running);
    return;
  }
  std::weak_ptr<char> alive = alive_;
  job->next = deps_.loop.after(kPollSec, [this, alive, job, done] {
    if (!alive.expired()) pollRestore(job, done);
  });
}

}  // namespace tarry::actions
