#include "guard/careful_hold_policy.h"

#include "guard/hold_duration.h"
#include "guard/terminals.h"
#include "settings/preferences.h"
#include "settings/tunables.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <deque>
#include <unordered_set>

namespace tarry::guard {
namespace {

using settings::T;

// Shells and multiplexers sit between a terminal and the command the user runs; they are never
// "a command" themselves. Compared in lower case.
constexpr std::array<std::string_view, 9> kShells = {"zsh",  "bash",   "sh", "fish", "login",
                                                     "tmux", "screen", "nu", "pwsh"};
// iTerm2's per-session server process ("iTermServer-3.5.0"), in lower case.
constexpr std::string_view kITermServerPrefix = "itermserver";

std::string lowered(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(),
                 [](unsigned char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
  return out;
}

bool contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

}  // namespace

CarefulHoldPolicy::CarefulHoldPolicy(Services services, CountFn count)
    : s_(services), count_(std::move(count)) {}

bool CarefulHoldPolicy::isGuarded(Combo combo) const { return comboSwitchedOn(combo, s_.prefs); }

HoldTime CarefulHoldPolicy::holdDuration(Combo combo, const std::string& rule) {
  return computeHoldDuration(combo, rule, isCarefulNow(), s_.prefs, s_.tunables);
}

bool CarefulHoldPolicy::isCarefulNow() {
  if (s_.prefs.workHours()) {
    const auto local = s_.loop.localTime(s_.loop.now());
    // NOTE: the weekday is today's also in the small hours of a window that began yesterday
    // evening: Saturday 02:00 of a Friday-night window does not qualify. Kept simple on purpose.
    const bool dayQualifies = !s_.prefs.workWeekdays() || (local.weekday >= 1 && local.weekday <= 5);
    const int from = s_.prefs.workFrom();
    const int to = s_.prefs.workTo();
    const int h = local.hour;
    // from == to takes the second branch and covers the whole day.
    const bool inHours = from < to ? (from <= h && h < to) : (h >= from || h < to);
    if (dayQualifies && inHours) return true;
  }
  if (s_.prefs.micStrict()) return s_.audio.microphoneInUse();
  return false;
}

bool CarefulHoldPolicy::hasUnsavedWork(const platform::RunningApp& app) {
  if (app.pid <= 0) return false;
  const auto windows = s_.windows.windowsOf(app.pid);
  return std::any_of(windows.begin(), windows.end(),
                     [](const platform::WindowInfo& w) { return titleShowsUnsavedWork(w.title); });
}

std::vector<std::string> CarefulHoldPolicy::busyReasons(const platform::RunningApp& app) {
  std::vector<std::string> reasons;
  if (app.pid <= 0) return reasons;
  const auto tree = processTree(s_.processes, app.pid);

  // Browsers and Electron apps play and record from helper processes, hence the whole tree.
  if (s_.audio.reportsPerProcess()) {
    const auto use = s_.audio.processUse(tree);
    if (use.playing) reasons.emplace_back("Playing sound");
    if (use.recording) reasons.emplace_back("Using the microphone");
  }

  if (isTerminal(app.bundleID)) {
    if (const auto command = runningCommand(s_.processes, tree)) {
      reasons.push_back(command->empty() ? std::string("A command is running")
                                         : "`" + *command + "` is running");
    }
  }

  const double percent = sampleCpuPercent(s_.processes, tree, s_.tunables.real(T::busySampleMs));
  if (percent >= s_.tunables.real(T::busyCpuPercent)) reasons.emplace_back("Working hard");
  return reasons;
}

void CarefulHoldPolicy::recordAttemptHour(Combo /*combo*/) {
  if (!count_) return;
  const int hour = std::clamp(s_.loop.localTime(s_.loop.now()).hour, 0, 23);
  std::array<char, 8> name{};
  std::snprintf(name.data(), name.size(), "hour.%02d", hour);
  count_(name.data(), 1);
}

bool CarefulHoldPolicy::isTerminal(const std::string& bundleID) const {
  return isTerminalApp(s_.workspace, bundleID);
}

std::vector<std::int32_t> processTree(platform::ProcessInfo& processes, std::int32_t root, std::size_t cap) {
  std::vector<std::int32_t> tree;
  if (cap == 0) return tree;
  std::unordered_set<std::int32_t> seen;
  tree.push_back(root);
  seen.insert(root);
  // `tree` doubles as the breadth-first queue: index `next` is the process whose children are
  // listed next.
  for (std::size_t next = 0; next < tree.size() && tree.size() < cap; ++next) {
    for (const auto child : processes.childrenOf(tree[next])) {
      if (child <= 0 || !seen.insert(child).second) continue;
      tree.push_back(child);
      if (tree.size() >= cap) break;
    }
  }
  return tree;
}

std::optional<std::string> runningCommand(platform::ProcessInfo& processes,
                                          const std::vector<std::int32_t>& tree) {
  for (std::size_t i = 1; i < tree.size(); ++i) {
    auto name = processes.name(tree[i]);
    if (!name || name->empty()) {
      if (auto executable = processes.executableName(tree[i])) name = std::move(executable);
    }
    if (!name) continue;
    const auto command = lowered(*name);
    if (std::find(kShells.begin(), kShells.end(), command) != kShells.end()) continue;
    if (command.rfind(kITermServerPrefix, 0) == 0) continue;
    return name;
  }
  return std::nullopt;
}

double sampleCpuPercent(platform::ProcessInfo& processes, const std::vector<std::int32_t>& pids,
                        double sampleMs) {
  if (pids.empty()) return 0;
  std::vector<std::optional<std::uint64_t>> before;
  before.reserve(pids.size());
  const auto start = processes.monotonicNs();
  for (const auto pid : pids) before.push_back(processes.cpuTimeNs(pid));
  processes.sleepFor(sampleMs);
  const auto end = processes.monotonicNs();
  std::uint64_t used = 0;
  for (std::size_t i = 0; i < pids.size(); ++i) {
    if (!before[i]) continue;
    const auto after = processes.cpuTimeNs(pids[i]);
    // A pid that ended and was reused in between can read lower than before: skip it.
    if (after && *after >= *before[i]) used += *after - *before[i];
  }
  // The measured interval, not the requested one: a sleep can run long on a loaded machine, and
  // the CPU time keeps accumulating for as long as it does.
  const double intervalNs = end > start ? static_cast<double>(end - start) : sampleMs * 1e6;
  if (intervalNs <= 0) return 0;
  return static_cast<double>(used) * 100.0 / intervalNs;
}

bool titleShowsUnsavedWork(std::string_view title) {
  const auto first = title.find_first_not_of(" \t");
  if (first == std::string_view::npos) return false;
  title = title.substr(first, title.find_last_not_of(" \t") - first + 1);

  // A flag in front of the document name: "*Untitled Document 1 - gedit" (GTK editors, GIMP,
  // Inkscape), "● main.cpp - tarry - Visual Studio Code" (Electron editors), "• notes".
  for (const std::string_view lead : {"*", "●", "•"}) {
    if (title.substr(0, lead.size()) == lead) return true;
  }
  // A flag after it: "notes.txt *", "notes.txt*" (Qt's "[*]" title placeholder at the end).
  if (title.back() == '*') return true;
  // Qt's placeholder filled in before the application's name: "notes.txt* - Kate",
  // "notes.txt * — KWrite"; Sublime Text's "notes.txt • - Sublime Text". A bare "•" between words
  // is a common separator ("Inbox • Mail") and does not count.
  for (const std::string_view flagged : {"* - ", "* — ", "* – ", "• - ", "• — ", "● - ", "● — "}) {
    if (contains(title, flagged)) return true;
  }
  const auto lower = lowered(title);
  for (const std::string_view word : {"[modified]", "(modified)", "[unsaved]", "(unsaved)", "[+]"}) {
    if (contains(lower, word)) return true;
  }
  // Vim's own title: "notes.txt + (~/src) - VIM" (also GVIM, NVIM).
  return contains(title, " + (") && lower.size() >= 3 && lower.compare(lower.size() - 3, 3, "vim") == 0;
}

}  // namespace tarry::guard
