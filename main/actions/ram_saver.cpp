#include "actions/ram_saver.h"

#include "common/app_lists.h"
#include "common/counters.h"
#include "guard/combo.h"
#include "settings/preferences.h"
#include "settings/tunables.h"

#include <algorithm>
#include <cstdio>
#include <set>

namespace tarry::actions {
namespace {

using platform::RunningApp;
using settings::T;

constexpr double kBannerSec = 3.0;
constexpr std::size_t kTreeCap = 400;

/// Apps whose quitting loses what the user relies on: mail, chat and calls, music, passwords.
const std::vector<std::string>& builtInSkipList() {
  static const std::vector<std::string> ids{"com.apple.mail",
                                            "com.apple.MobileSMS",
                                            "com.apple.iCal",
                                            "com.apple.reminders",
                                            "com.apple.Music",
                                            "com.spotify.client",
                                            "com.tinyspeck.slackmacgap",
                                            "com.microsoft.teams",
                                            "com.microsoft.teams2",
                                            "us.zoom.xos",
                                            "com.hnc.Discord",
                                            "ru.keepcoder.Telegram",
                                            "org.telegram.desktop",
                                            "net.whatsapp.WhatsApp",
                                            "desktop.WhatsApp",
                                            "com.1password.1password",
                                            "com.agilebits.onepassword7",
                                            "com.bitwarden.desktop"};
  return ids;
}

}  // namespace

std::string sizeText(std::int64_t megabytes) {
  if (megabytes < 1024) return std::to_string(megabytes) + " MB";
  char text[32];
  std::snprintf(text, sizeof text, "%.1f GB", static_cast<double>(megabytes) / 1024.0);
  return text;
}

RamSaver::RamSaver(RamSaverDeps deps) : deps_(deps), watchStart_(deps.loop.uptime()) {}

RamSaver::~RamSaver() { alive_.reset(); }

void RamSaver::reschedule() {
  const double interval = deps_.tunables.real(T::ramSaverCheckMin) * 60;
  std::weak_ptr<char> alive = alive_;
  timer_ = deps_.loop.every(
      interval,
      [this, alive] {
        if (!alive.expired()) run();
      },
      interval * 0.2);
}

void RamSaver::noteActivated(std::int32_t pid) { lastActive_[pid] = deps_.loop.uptime(); }

double RamSaver::idleSeconds(std::int32_t pid, double now) const {
  const auto it = lastActive_.find(pid);
  return now - (it == lastActive_.end() ? watchStart_ : it->second);
}

std::optional<std::string> RamSaver::keepReason(const RunningApp& app, double limitSec, double now,
                                                std::int32_t frontPid) {
  if (!app.regular) return "not a regular app";
  if (app.bundleID.empty()) return "no bundle id";
  if (app.pid == deps_.workspace.ownPid()) return "Tarry itself";
  if (common::isFileManager(deps_.workspace, app.bundleID)) return "file manager";
  if (common::isNeverQuit(deps_.workspace, deps_.tunables, app.bundleID)) return "never-quit list";
  if (deps_.prefs.appMode(app.bundleID) == "never") return "App Rules: never quit";
  if (common::listed(builtInSkipList(), app.bundleID) ||
      common::listed(deps_.workspace.identifierEquivalents(platform::IdentifierSet::ramSaverSkip),
                     app.bundleID)) {
    return "built-in skip list (chat, music, mail, passwords)";
  }
  if (common::listed(common::commaList(deps_.tunables.text(T::ramSaverSkipExtra)), app.bundleID))
    return "extra skip list";
  if (deps_.workspace.isTerminated(app.pid)) return "already quitting";
  if (frontPid != 0 && app.pid == frontPid) return "frontmost";
  const double idle = idleSeconds(app.pid, now);
  if (idle < limitSec) return std::to_string(static_cast<std::int64_t>(idle / 60)) + " min ago";
  return std::nullopt;
}

std::uint64_t RamSaver::treeBytes(platform::ProcessInfo& processes, std::int32_t pid) {
  std::uint64_t total = 0;
  std::set<std::int32_t> seen;
  std::vector<std::int32_t> todo{pid};
  while (!todo.empty() && seen.size() < kTreeCap) {
    const std::int32_t p = todo.back();
    todo.pop_back();
    if (p <= 0 || !seen.insert(p).second) continue;
    total += processes.footprintBytes(p).value_or(0);
    for (const std::int32_t child : processes.childrenOf(p)) todo.push_back(child);
  }
  return total;
}

void RamSaver::run() {
  if (running_ || !deps_.prefs.enabled() || deps_.loop.now() < deps_.prefs.pauseUntil()) return;
  const double now = deps_.loop.uptime();
  const auto apps = deps_.workspace.runningApplications();
  const auto front = deps_.workspace.frontmostApplication();
  const std::int32_t frontPid = front ? front->pid : 0;
  const auto perApp = deps_.prefs.ramSaverApp();
  const double global = deps_.prefs.ramSaverHours();

  std::set<std::int32_t> alive;
  std::vector<std::pair<double, RunningApp>> candidates;
  for (const auto& app : apps) {
    alive.insert(app.pid);
    const auto own = perApp.find(app.bundleID);
    const double hours = own != perApp.end() ? own->second : global;
    if (hours <= 0) continue;  // -1 (never) and 0 (off)
    if (keepReason(app, hours * 3600, now, frontPid)) continue;
    candidates.emplace_back(idleSeconds(app.pid, now), app);
  }
  // Processes that ended take their activation times with them.
  std::erase_if(lastActive_, [&](const auto& entry) { return alive.count(entry.first) == 0; });
  if (candidates.empty()) return;
  std::stable_sort(candidates.begin(), candidates.end(),
                   [](const auto& a, const auto& b) { return a.first > b.first; });
  const auto max =
      static_cast<std::size_t>(std::max<std::int64_t>(deps_.tunables.integer(T::ramSaverMaxPerRun), 1));
  if (candidates.size() > max) candidates.resize(max);

  std::vector<RunningApp> chosen;
  for (auto& c : candidates) chosen.push_back(std::move(c.second));
  running_ = true;
  std::weak_ptr<char> weak = alive_;
  platform::MainLoop* loop = &deps_.loop;
  platform::ProcessInfo* processes = &deps_.processes;
  loop->background([this, weak, loop, processes, chosen = std::move(chosen)]() mutable {
    if (weak.expired()) return;
    std::vector<std::uint64_t> bytes;
    for (const auto& app : chosen) bytes.push_back(treeBytes(*processes, app.pid));
    loop->dispatchMain([this, weak, chosen = std::move(chosen), bytes = std::move(bytes)]() mutable {
      if (!weak.expired()) finish(std::move(chosen), std::move(bytes));
    });
  });
}

void RamSaver::finish(std::vector<RunningApp> apps, std::vector<std::uint64_t> bytes) {
  std::map<std::int32_t, std::uint64_t> bytesOf;
  std::vector<QuitEntry> entries;
  for (std::size_t i = 0; i < apps.size(); ++i) {
    const RunningApp& app = apps[i];
    bytesOf[app.pid] = bytes[i];
    if (deps_.prefs.undoQuit()) deps_.undo.captureAndKeep(app);
    (void)deps_.workspace.terminate(app);
    entries.push_back({app, app.path, common::displayName(app)});
  }
  std::weak_ptr<char> weak = alive_;
  deps_.undo.recordBatch(
      std::move(entries), [this, weak, bytesOf](int /*recorded*/, const std::vector<QuitEntry>& ended) {
        if (weak.expired()) return;
        running_ = false;
        // Apps that refused (unsaved work) are not counted.
        if (ended.empty()) {
          if (onRunDone) onRunDone(0, 0);
          return;
        }
        std::uint64_t total = 0;
        for (const auto& e : ended) total += bytesOf.at(e.app.pid);
        const auto n = static_cast<std::int64_t>(ended.size());
        const auto mb = static_cast<std::int64_t>(total >> 20);
        deps_.counters.add("ramSaver.quits", n);
        deps_.counters.add("ramSaver.mb", mb);
        if (!deps_.tunables.flag(T::ramSaverBannerPaused)) {
          std::string text = "RAM Saver closed " + std::to_string(n) + " idle " + actions::apps(n) + " · " +
                             sizeText(mb) + " freed.";
          if (deps_.undo.canUndo())
            text.append(" ").append(guard::keysText(guard::Shortcut::undo)).append(" to undo.");
          deps_.hud.flash(text, deps_.workspace.ownIcon(), kBannerSec);
        }
        if (onRunDone) onRunDone(static_cast<int>(n), mb);
      });
}

}  // namespace tarry::actions
