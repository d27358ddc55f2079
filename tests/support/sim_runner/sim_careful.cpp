#include "sim_careful.h"

#include "common/counters.h"
#include "sim_runner.h"

#include <optional>
#include <utility>

namespace tarry::simrun {
namespace {

bool parseSwitch(const std::string& s, bool& out) {
  if (s != "yes" && s != "on" && s != "no" && s != "off") return false;
  out = s == "yes" || s == "on";
  return true;
}

std::string cmdCareful(SimWorld& w, const Args& a) {
  bool on = false;
  if (a.size() != 1 || !parseSwitch(a[0], on)) return "usage: careful on|off";
  if (w.guard) return "careful must come before start";
  w.careful.on = on;
  return "";
}

std::string cmdProc(SimWorld& w, const Args& a) {
  constexpr const char* kUsage = "usage: proc PID PARENT NAME|- [exe=NAME] [cpu=PERCENT]";
  std::int32_t pid = 0;
  std::int32_t parent = 0;
  if (a.size() < 3 || !parsePid(a[0], pid) || !parsePid(a[1], parent)) return kUsage;
  std::optional<std::string> name;
  if (a[2] != "-") name = a[2];
  std::optional<std::string> exe;
  double cpu = 0;
  for (std::size_t i = 3; i < a.size(); ++i) {
    if (a[i].rfind("exe=", 0) == 0) {
      exe = a[i].substr(4);
    } else if (a[i].rfind("cpu=", 0) != 0 || !parseDouble(a[i].substr(4), cpu)) {
      return kUsage;
    }
  }
  w.careful.processes.add(pid, parent, std::move(name), std::move(exe), cpu);
  return "";
}

std::string cmdCpu(SimWorld& w, const Args& a) {
  std::int32_t pid = 0;
  double percent = 0;
  if (a.size() != 2 || !parsePid(a[0], pid) || !parseDouble(a[1], percent)) return "usage: cpu PID PERCENT";
  w.careful.processes.setCpuPercent(pid, percent);
  return "";
}

std::string cmdEndProc(SimWorld& w, const Args& a) {
  std::int32_t pid = 0;
  if (a.size() != 1 || !parsePid(a[0], pid)) return "usage: endproc PID";
  w.careful.processes.remove(pid);
  return "";
}

std::string cmdAudio(SimWorld& w, const Args& a) {
  constexpr const char* kUsage = "usage: audio mic|perprocess yes|no | audio play|record PID yes|no";
  bool on = false;
  if (a.size() == 2 && parseSwitch(a[1], on)) {
    if (a[0] == "mic")
      w.careful.audio.microphone = on;
    else if (a[0] == "perprocess")
      w.careful.audio.perProcess = on;
    else
      return kUsage;
    return "";
  }
  std::int32_t pid = 0;
  if (a.size() != 3 || !parsePid(a[1], pid) || !parseSwitch(a[2], on)) return kUsage;
  if (a[0] == "play")
    w.careful.audio.setPlaying(pid, on);
  else if (a[0] == "record")
    w.careful.audio.setRecording(pid, on);
  else
    return kUsage;
  return "";
}

std::string cmdWindow(SimWorld& w, const Args& a) {
  std::int32_t pid = 0;
  if (a.empty() || !parsePid(a[0], pid)) return "usage: window PID [TITLE...]";
  w.careful.windows.titles[pid] = Args(a.begin() + 1, a.end());
  return "";
}

}  // namespace

std::vector<platform::WindowInfo> ScriptedWindows::windowsOf(std::int32_t pid) {
  std::vector<platform::WindowInfo> out;
  const auto it = titles.find(pid);
  if (it == titles.end()) return out;
  std::uint32_t id = 1;
  for (const auto& title : it->second) {
    platform::WindowInfo info;
    info.id = id++;
    info.title = title;
    out.push_back(std::move(info));
  }
  return out;
}

bool RecordingCarefulPolicy::hasUnsavedWork(const platform::RunningApp& app) {
  const bool unsaved = inner_.hasUnsavedWork(app);
  journal_.add("policy unsaved pid=" + std::to_string(app.pid) + " -> " + (unsaved ? "yes" : "no"));
  return unsaved;
}

std::vector<std::string> RecordingCarefulPolicy::busyReasons(const platform::RunningApp& app) {
  auto reasons = inner_.busyReasons(app);
  journal_.add("policy busy pid=" + std::to_string(app.pid) + " -> " + reasonsText(reasons));
  return reasons;
}

void RecordingCarefulPolicy::recordAttemptHour(guard::Combo combo) {
  journal_.add("policy hour " + std::string(guard::word(combo)));
  inner_.recordAttemptHour(combo);
}

CarefulSim::CarefulSim(const settings::Preferences& prefs, const settings::Tunables& tunables,
                       const platform::MainLoop& loop, const platform::Workspace& workspace,
                       common::Counters& counters, platform::sim::Journal& journal)
    : policy(
          {prefs, tunables, loop, workspace, processes, audio, windows},
          [&counters](std::string_view name, std::int64_t amount) { counters.add(name, amount); }, journal) {}

void addCarefulCommands(CommandTable& t) {
  t["careful"] = {"careful on|off", cmdCareful};
  t["proc"] = {"proc PID PARENT NAME|- [exe=NAME] [cpu=PERCENT]", cmdProc};
  t["cpu"] = {"cpu PID PERCENT", cmdCpu};
  t["endproc"] = {"endproc PID", cmdEndProc};
  t["audio"] = {"audio mic|perprocess yes|no | audio play|record PID yes|no", cmdAudio};
  t["window"] = {"window PID [TITLE...]", cmdWindow};
}

}  // namespace tarry::simrun
