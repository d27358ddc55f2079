#include "sim_runner.h"

#include "guard/hold_duration.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <utility>

namespace tarry::simrun {
namespace {

using platform::EventType;
using platform::KeyEvent;

// MARK: - Text helpers

std::string quoted(const std::string& s) { return "\"" + s + "\""; }

std::string fixed3(double v) {
  char text[48];
  std::snprintf(text, sizeof text, "%.3f", v);
  return text;
}

std::string joined(const Args& args, std::size_t from, const char* separator = " ") {
  std::string out;
  for (std::size_t i = from; i < args.size(); ++i) {
    if (i > from) out += separator;
    out += args[i];
  }
  return out;
}

std::string utf8(const std::u16string& s) {
  std::string out;
  for (std::size_t i = 0; i < s.size(); ++i) {
    std::uint32_t c = s[i];
    if (c >= 0xD800 && c <= 0xDBFF && i + 1 < s.size() && s[i + 1] >= 0xDC00 && s[i + 1] <= 0xDFFF) {
      c = 0x10000 + ((c - 0xD800) << 10) + (s[i + 1] - 0xDC00);
      ++i;
    }
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else if (c < 0x800) {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      out += static_cast<char>(0xE0 | (c >> 12));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (c >> 18));
      out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return out;
}

std::u16string utf16(const std::string& s) {
  std::u16string out;
  for (std::size_t i = 0; i < s.size();) {
    const auto b = static_cast<unsigned char>(s[i]);
    std::uint32_t c = b;
    std::size_t n = 1;
    if (b >= 0xF0) {
      c = b & 0x07;
      n = 4;
    } else if (b >= 0xE0) {
      c = b & 0x0F;
      n = 3;
    } else if (b >= 0xC0) {
      c = b & 0x1F;
      n = 2;
    }
    for (std::size_t k = 1; k < n && i + k < s.size(); ++k)
      c = (c << 6) | (static_cast<unsigned char>(s[i + k]) & 0x3F);
    i += n;
    if (c >= 0x10000) {
      c -= 0x10000;
      out += static_cast<char16_t>(0xD800 + (c >> 10));
      out += static_cast<char16_t>(0xDC00 + (c & 0x3FF));
    } else {
      out += static_cast<char16_t>(c);
    }
  }
  return out;
}

std::string iconText(const platform::Icon& icon) {
  if (!icon.name.empty()) return icon.name;
  if (icon.argb) return "pixels" + std::to_string(icon.width) + "x" + std::to_string(icon.height);
  return "none";
}

std::string modifierText(std::uint64_t flags) {
  std::string out;
  const auto add = [&](std::uint64_t mask, const char* name) {
    if ((flags & mask) == 0) return;
    if (!out.empty()) out += "+";
    out += name;
  };
  add(platform::kFlagControl, "ctrl");
  add(platform::kFlagOption, "opt");
  add(platform::kFlagShift, "shift");
  add(platform::kFlagCommand, "cmd");
  return out.empty() ? "nomods" : out;
}

std::string describe(const KeyEvent& e) {
  switch (e.type) {
    case EventType::keyDown:
    case EventType::keyUp: {
      std::string line = e.type == EventType::keyDown ? "key down" : "key up";
      line += " code=" + std::to_string(e.keyCode) + " " + modifierText(e.flags);
      line += " text=" + (e.text.empty() ? std::string("none") : quoted(utf8(e.text)));
      // What the key types with no modifiers, where it says more than the text does.
      std::u16string lower = e.text;
      for (auto& c : lower) {
        if (c >= u'A' && c <= u'Z') c = static_cast<char16_t>(c - u'A' + u'a');
      }
      if (!e.unmodifiedText && !e.text.empty()) line += " unmod=none";
      if (e.unmodifiedText && *e.unmodifiedText != lower) line += " unmod=" + quoted(utf8(*e.unmodifiedText));
      if (e.autorepeat) line += " repeat";
      if (e.userData == platform::kOwnEventMarker) line += " marker";
      return line;
    }
    case EventType::flagsChanged:
      return "key flags " + modifierText(e.flags);
    case EventType::tapDisabledByTimeout:
      return "key tapDisabled timeout";
    case EventType::tapDisabledByUserInput:
      return "key tapDisabled user";
    case EventType::other:
      return "key other";
  }
  return "key ?";
}

// MARK: - Argument parsing

bool parseYesNo(const std::string& s, bool& out) {
  if (s == "yes" || s == "true" || s == "1" || s == "on") {
    out = true;
    return true;
  }
  if (s == "no" || s == "false" || s == "0" || s == "off") {
    out = false;
    return true;
  }
  return false;
}

/// "2026-03-14T23:59:59Z" (UTC) → seconds since 1970.
bool parseIsoUtc(const std::string& s, double& out) {
  int y = 0, mo = 0, d = 0, h = 0, mi = 0, sec = 0;
  char z = 0;
  if (std::sscanf(s.c_str(), "%d-%d-%dT%d:%d:%d%c", &y, &mo, &d, &h, &mi, &sec, &z) != 7 || z != 'Z')
    return false;
  if (mo < 1 || mo > 12 || d < 1 || d > 31 || h > 23 || mi > 59 || sec > 60) return false;
  // Days from civil date (proleptic Gregorian).
  const int yy = y - (mo <= 2 ? 1 : 0);
  const int era = (yy >= 0 ? yy : yy - 399) / 400;
  const auto yoe = static_cast<unsigned>(yy - era * 400);
  const auto doy = static_cast<unsigned>((153 * (mo + (mo > 2 ? -3 : 9)) + 2) / 5 + d - 1);
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  const double days = static_cast<double>(era) * 146097 + static_cast<double>(doe) - 719468;
  out = days * 86400 + h * 3600 + mi * 60 + sec;
  return true;
}

/// "+01:00", "-0530", "3600" → seconds east of UTC.
bool parseOffset(const std::string& s, double& out) {
  if (parseDouble(s, out)) return true;
  int h = 0, m = 0;
  if (s.size() < 3 || (s[0] != '+' && s[0] != '-')) return false;
  if (std::sscanf(s.c_str() + 1, "%2d:%2d", &h, &m) != 2 &&
      std::sscanf(s.c_str() + 1, "%2d%2d", &h, &m) != 2) {
    return false;
  }
  out = (s[0] == '-' ? -1 : 1) * (h * 3600.0 + m * 60.0);
  return true;
}

/// Virtual key codes of the letter and digit keys (the physical layout the key codes name).
std::optional<std::int64_t> keyCodeOf(const std::string& name) {
  static const std::map<std::string, std::int64_t> kCodes = {
      {"a", 0},  {"s", 1},  {"d", 2},  {"f", 3},  {"h", 4},  {"g", 5},  {"z", 6},  {"x", 7},  {"c", 8},
      {"v", 9},  {"b", 11}, {"q", 12}, {"w", 13}, {"e", 14}, {"r", 15}, {"y", 16}, {"t", 17}, {"1", 18},
      {"2", 19}, {"3", 20}, {"4", 21}, {"6", 22}, {"5", 23}, {"9", 25}, {"7", 26}, {"8", 28}, {"0", 29},
      {"o", 31}, {"u", 32}, {"i", 34}, {"p", 35}, {"l", 37}, {"j", 38}, {"k", 40}, {"n", 45}, {"m", 46},
  };
  const auto it = kCodes.find(name);
  if (it == kCodes.end()) return std::nullopt;
  return it->second;
}

bool modifierFlag(const std::string& word, std::uint64_t& flags) {
  if (word == "cmd")
    flags |= platform::kFlagCommand;
  else if (word == "shift")
    flags |= platform::kFlagShift;
  else if (word == "opt")
    flags |= platform::kFlagOption;
  else if (word == "ctrl")
    flags |= platform::kFlagControl;
  else
    return false;
  return true;
}

bool startsWith(const std::string& s, std::string_view prefix) {
  return s.compare(0, prefix.size(), prefix) == 0;
}

// MARK: - Commands

std::string needGuard(SimWorld& w) { return w.guard ? "" : "the guard is not started (use `start`)"; }

std::string cmdPref(SimWorld& w, const Args& a) {
  const std::string& rest = a.empty() ? std::string() : a[0];
  const auto space = rest.find_first_of(" \t");
  if (space == std::string::npos) return "usage: pref KEY JSON";
  const std::string key = rest.substr(0, space);
  const std::string json = rest.substr(space + 1);
  const auto value = platform::Value::parse(json, nullptr, false);
  if (value.is_discarded()) return "not JSON: " + json;
  w.store.set(key, value);
  return "";
}

std::string cmdUnpref(SimWorld& w, const Args& a) {
  if (a.size() != 1) return "usage: unpref KEY";
  w.store.remove(a[0]);
  return "";
}

std::string cmdTunable(SimWorld& w, const Args& a) {
  if (a.size() < 2) return "usage: tunable KEY VALUE";
  for (std::size_t i = 0; i < settings::kTunableCount; ++i) {
    const auto& row = settings::kTunableRows[i];
    if (row.key != a[0]) continue;
    const auto t = static_cast<settings::T>(i);
    if (row.kind == settings::TunableKind::string) {
      std::string text = joined(a, 1);
      if (text.size() > row.maxChars) text.resize(row.maxChars);
      w.tunables.setText(t, std::move(text));
      return "";
    }
    double v = 0;
    bool flag = false;
    if (row.kind == settings::TunableKind::boolean && parseYesNo(a[1], flag)) {
      v = flag ? 1 : 0;
    } else if (!parseDouble(a[1], v)) {
      return "not a number: " + a[1];
    }
    if (row.kind == settings::TunableKind::integer) v = std::trunc(v);
    w.tunables.setNumber(t, std::clamp(v, row.lower, row.upper));
    return "";
  }
  return "no tunable named " + a[0];
}

std::string cmdApp(SimWorld& w, const Args& a) {
  if (a.size() < 3) return "usage: app PID BUNDLE NAME [icon=NAME] [path=PATH]";
  platform::RunningApp app;
  if (!parsePid(a[0], app.pid)) return "bad pid: " + a[0];
  app.bundleID = a[1] == "-" ? "" : a[1];
  app.localizedName = a[2];
  for (std::size_t i = 3; i < a.size(); ++i) {
    if (startsWith(a[i], "icon="))
      app.icon.name = a[i].substr(5);
    else if (startsWith(a[i], "path="))
      app.path = a[i].substr(5);
    else
      return "unknown app option: " + a[i];
  }
  w.sim.workspace.addApp(app);
  return "";
}

std::string cmdPidOnly(const Args& a, std::int32_t& pid, const char* usage) {
  if (a.size() != 1 || !parsePid(a[0], pid)) return std::string("usage: ") + usage;
  return "";
}

std::string cmdFront(SimWorld& w, const Args& a) {
  std::int32_t pid = 0;
  if (auto e = cmdPidOnly(a, pid, "front PID"); !e.empty()) return e;
  w.sim.workspace.setFrontmost(pid);
  return "";
}

std::string cmdRemoveApp(SimWorld& w, const Args& a) {
  std::int32_t pid = 0;
  if (auto e = cmdPidOnly(a, pid, "remove PID"); !e.empty()) return e;
  w.sim.workspace.removeApp(pid);
  return "";
}

std::string cmdOwn(SimWorld& w, const Args& a) {
  std::int32_t pid = 0;
  if (auto e = cmdPidOnly(a, pid, "own PID"); !e.empty()) return e;
  w.sim.workspace.setOwnPid(pid);
  return "";
}

std::string cmdRefuse(SimWorld& w, const Args& a) {
  std::int32_t pid = 0;
  if (auto e = cmdPidOnly(a, pid, "refuse PID"); !e.empty()) return e;
  w.sim.workspace.refuseTerminate.insert(pid);
  return "";
}

std::string cmdEquiv(SimWorld& w, const Args& a) {
  static const std::map<std::string, platform::IdentifierSet> kSets = {
      {"dock", platform::IdentifierSet::dock},
      {"neverTerminate", platform::IdentifierSet::neverTerminate},
      {"terminals", platform::IdentifierSet::terminals},
      {"sessionRestorers", platform::IdentifierSet::sessionRestorers},
      {"ramSaverSkip", platform::IdentifierSet::ramSaverSkip},
  };
  if (a.empty()) return "usage: equiv SET [ID...]";
  const auto it = kSets.find(a[0]);
  if (it == kSets.end()) return "unknown identifier set: " + a[0];
  w.sim.workspace.setEquivalents(it->second, Args(a.begin() + 1, a.end()));
  return "";
}

std::string cmdClock(SimWorld& w, const Args& a) {
  double t = 0;
  if (a.size() != 1 || !(parseIsoUtc(a[0], t) || parseDouble(a[0], t))) {
    return "usage: clock YYYY-MM-DDTHH:MM:SSZ | SECONDS";
  }
  w.sim.loop.setWallClock(t);
  return "";
}

std::string cmdTz(SimWorld& w, const Args& a) {
  double offset = 0;
  if (a.size() != 1 || !parseOffset(a[0], offset)) return "usage: tz +HH:MM | -HH:MM | SECONDS";
  w.sim.loop.setUtcOffset(offset);
  return "";
}

std::string cmdTap(SimWorld& w, const Args& a) {
  bool on = false;
  if (a.size() != 2 || !parseYesNo(a[1], on)) return "usage: tap trusted|fail|listen yes|no";
  if (a[0] == "trusted")
    w.sim.tap.trusted = on;
  else if (a[0] == "fail")
    w.sim.tap.failCreate = on;
  else if (a[0] == "listen")
    w.sim.tap.listenGranted = on;
  else
    return "usage: tap trusted|fail|listen yes|no";
  return "";
}

std::string cmdPolicy(SimWorld& w, const Args& a) {
  if (a.size() >= 2 && a[0] == "busy") {
    w.policy.busy.clear();
    if (!(a.size() == 2 && a[1] == "none")) w.policy.busy.assign(a.begin() + 1, a.end());
    return "";
  }
  bool on = false;
  if (a.size() != 2 || !parseYesNo(a[1], on))
    return "usage: policy careful|unsaved yes|no | policy busy none|REASON...";
  if (a[0] == "careful")
    w.policy.careful = on;
  else if (a[0] == "unsaved")
    w.policy.unsaved = on;
  else
    return "unknown policy answer: " + a[0];
  return "";
}

std::string cmdUndo(SimWorld& w, const Args& a) {
  bool on = false;
  if (a.size() != 2 || !parseYesNo(a[1], on)) return "usage: undo can|snap yes|no";
  if (a[0] == "can")
    w.undo.can = on;
  else if (a[0] == "snap")
    w.undo.snaps = on;
  else
    return "usage: undo can|snap yes|no";
  return "";
}

std::string cmdAlert(SimWorld& w, const Args& a) {
  if (a.empty()) return "usage: alert ANSWER";
  w.alertAnswers.push_back(joined(a, 0));
  return "";
}

std::string cmdBackground(SimWorld& w, const Args& a) {
  if (a.size() != 1) return "usage: background hold|run|release|discard";
  auto& loop = w.sim.loop;
  if (a[0] == "hold") {
    loop.setHoldBackground(true);
  } else if (a[0] == "run") {
    loop.setHoldBackground(false);
  } else if (a[0] == "release") {
    w.note("background release " + std::to_string(loop.heldBackgroundCount()));
    (void)loop.releaseBackground();
  } else if (a[0] == "discard") {
    w.note("background discard " + std::to_string(loop.heldBackgroundCount()));
    loop.discardBackground();
  } else {
    return "usage: background hold|run|release|discard";
  }
  return "";
}

std::string cmdStart(SimWorld& w, const Args& a) {
  if (!a.empty()) return "usage: start";
  if (w.guard) return "the guard is already started";
  w.guard = std::make_unique<guard::Guard>(
      guard::GuardDeps{w.sim.loop, w.tap, w.sim.workspace, w.sim.sound, w.activity, w.prefs, w.tunables,
                       w.counters, w.log, w.hud, w.holdPolicy(), w.undo, w.telemetry});
  w.counters.start();
  const bool ok = w.guard->installTap();
  w.note(std::string("guard start tap=") + (ok ? "yes" : "no"));
  return "";
}

std::string cmdInstall(SimWorld& w, const Args& a) {
  if (!a.empty()) return "usage: install";
  if (auto e = needGuard(w); !e.empty()) return e;
  const bool ok = w.guard->installTap();
  w.note(std::string("tap install -> ") + (ok ? "yes" : "no"));
  return "";
}

std::string cmdUninstall(SimWorld& w, const Args& a) {
  if (!a.empty()) return "usage: uninstall";
  if (auto e = needGuard(w); !e.empty()) return e;
  w.guard->removeTap();
  w.note("tap removed");
  return "";
}

/// Delivers an event as the session would; notes it when no enabled tap sees it.
void deliver(SimWorld& w, const KeyEvent& e) {
  const bool disabling =
      e.type == EventType::tapDisabledByTimeout || e.type == EventType::tapDisabledByUserInput;
  if (!w.sim.tap.installed() || (!disabling && !w.sim.tap.enabled())) {
    w.note(describe(e) + " (no tap)");
    return;
  }
  (void)w.sim.tap.inject(e);
}

std::string cmdKey(SimWorld& w, const Args& a) {
  constexpr const char* kUsage =
      "usage: key down|up KEY|code=N [cmd] [shift] [opt] [ctrl] [repeat] [marker] [text=T|text=none] "
      "[unmod=T|unmod=none]";
  if (a.size() < 2 || (a[0] != "down" && a[0] != "up")) return kUsage;
  KeyEvent e;
  e.type = a[0] == "down" ? EventType::keyDown : EventType::keyUp;
  std::string letter;
  if (startsWith(a[1], "code=")) {
    double code = 0;
    if (!parseDouble(a[1].substr(5), code)) return kUsage;
    e.keyCode = static_cast<std::int64_t>(code);
  } else if (const auto code = keyCodeOf(a[1])) {
    e.keyCode = *code;
    letter = a[1];
  } else {
    return "unknown key: " + a[1];
  }
  std::optional<std::string> text;
  std::optional<std::string> unmod;
  bool unmodNone = false;
  for (std::size_t i = 2; i < a.size(); ++i) {
    const auto& word = a[i];
    if (modifierFlag(word, e.flags)) continue;
    if (word == "repeat")
      e.autorepeat = true;
    else if (word == "marker")
      e.userData = platform::kOwnEventMarker;
    else if (startsWith(word, "text="))
      text = word == "text=none" ? "" : word.substr(5);
    else if (startsWith(word, "unmod=")) {
      if (word == "unmod=none")
        unmodNone = true;
      else
        unmod = word.substr(6);
    } else {
      return "unknown key option: " + word;
    }
  }
  // A letter key types its letter (upper case with Shift) unless told otherwise.
  if (!text && !letter.empty()) {
    std::string typed = letter;
    if ((e.flags & platform::kFlagShift) != 0 && typed[0] >= 'a' && typed[0] <= 'z')
      typed[0] = static_cast<char>(typed[0] - 32);
    text = typed;
  }
  e.text = utf16(text.value_or(""));
  if (!unmodNone) {
    if (unmod)
      e.unmodifiedText = utf16(*unmod);
    else if (!letter.empty())
      e.unmodifiedText = utf16(letter);
  }
  deliver(w, e);
  return "";
}

std::string cmdFlags(SimWorld& w, const Args& a) {
  KeyEvent e;
  e.type = EventType::flagsChanged;
  for (const auto& word : a) {
    if (word == "none") continue;
    if (!modifierFlag(word, e.flags)) return "usage: flags none | [cmd] [shift] [opt] [ctrl]";
  }
  deliver(w, e);
  return "";
}

std::string cmdTapDisabled(SimWorld& w, const Args& a) {
  if (a.size() != 1 || (a[0] != "timeout" && a[0] != "user")) return "usage: tapdisabled timeout|user";
  KeyEvent e;
  e.type = a[0] == "timeout" ? EventType::tapDisabledByTimeout : EventType::tapDisabledByUserInput;
  deliver(w, e);
  if (w.sim.tap.installed()) w.note(std::string("tap enabled=") + (w.sim.tap.enabled() ? "yes" : "no"));
  return "";
}

std::string cmdWait(SimWorld& w, const Args& a) {
  double d = 0;
  if (a.size() != 1 || !parseDouble(a[0], d) || d < 0) return "usage: wait SECONDS";
  w.sim.loop.advance(d);
  return "";
}

std::string cmdState(SimWorld& w, const Args& a) {
  if (!a.empty()) return "usage: state";
  if (auto e = needGuard(w); !e.empty()) return e;
  const auto s = w.guard->state();
  std::string line = "state tap=" + std::string(s.tapInstalled ? "yes" : "no");
  line += " armed=" + std::string(s.armed ? "yes" : "no");
  line += " combo=" + std::string(guard::word(s.combo));
  line += " duration=" + fixed3(s.holdDuration) + " elapsed=" + fixed3(s.elapsed);
  line += " serial=" + std::to_string(s.holdSerial) + " swallowed=" + std::to_string(s.swallowedCode);
  line += " pending=" + std::to_string(s.pendingPID);
  line += " careful=" + std::string(s.lastCareful ? "yes" : "no") + " mode=" + quoted(s.lastMode);
  line += " reasons=" + reasonsText(s.holdReasons) + " snap=" + (s.hasHoldSnap ? "yes" : "no");
  w.note(std::move(line));
  return "";
}

std::string cmdCounter(SimWorld& w, const Args& a) {
  if (a.empty()) return "usage: counter NAME...";
  for (const auto& name : a) {
    w.note("counter " + name + " today=" + std::to_string(w.counters.today(name)) + " period=" +
           std::to_string(w.counters.period(name)) + " all=" + std::to_string(w.counters.allTime(name)));
  }
  return "";
}

}  // namespace

// MARK: - Shared helpers

std::string reasonsText(const std::vector<std::string>& reasons) {
  if (reasons.empty()) return "none";
  std::string out;
  for (const auto& r : reasons) {
    if (!out.empty()) out += " ";
    out += quoted(r);
  }
  return out;
}

bool parseDouble(const std::string& s, double& out) {
  if (s.empty()) return false;
  char* end = nullptr;
  out = std::strtod(s.c_str(), &end);
  return end == s.c_str() + s.size() && std::isfinite(out);
}

bool parsePid(const std::string& s, std::int32_t& out) {
  double v = 0;
  if (!parseDouble(s, v) || v != std::trunc(v) || v < 0 || v > 2147483647.0) return false;
  out = static_cast<std::int32_t>(v);
  return true;
}

// MARK: - Recorders

std::int64_t RecordingStore::addInteger(std::string_view key, std::int64_t amount) {
  const std::int64_t sum = inner_.addInteger(key, amount);
  if (key.substr(0, 4) == "all.") {
    char text[64];
    std::snprintf(text, sizeof text, " %+lld =%lld", static_cast<long long>(amount),
                  static_cast<long long>(sum));
    journal_.add("count " + std::string(key.substr(4)) + text);
  }
  return sum;
}

bool RecordingFiles::append(const std::string& path, std::string_view bytes) {
  const bool ok = inner_.append(path, bytes);
  constexpr std::string_view kEvents = "/events.log";
  if (path.size() >= kEvents.size() &&
      path.compare(path.size() - kEvents.size(), kEvents.size(), kEvents) == 0) {
    std::string_view line = bytes;
    if (!line.empty() && line.back() == '\n') line.remove_suffix(1);
    journal_.add("log " + std::string(line) + (ok ? "" : " (write failed)"));
  }
  return ok;
}

std::unique_ptr<platform::TapHandle> RecordingTap::create(Callback callback) {
  return inner_.create([this, callback = std::move(callback)](const KeyEvent& e) {
    journal_.add(describe(e));
    const auto verdict = callback(e);
    journal_.add(verdict == platform::TapVerdict::pass ? "=> pass" : "=> swallow");
    return verdict;
  });
}

void RecordingTap::requestListenAccess() {
  journal_.add("tap requestListenAccess");
  inner_.requestListenAccess();
}

std::unique_ptr<platform::ActivityToken> RecordingActivity::begin(std::string_view reason) {
  class Token final : public platform::ActivityToken {
   public:
    explicit Token(Journal& journal) : journal_(journal) {}
    ~Token() override { journal_.add("activity end"); }

   private:
    Journal& journal_;
  };
  journal_.add("activity begin " + quoted(std::string(reason)));
  return std::make_unique<Token>(journal_);
}

void RecordingHud::show(const std::string& title, const platform::Icon& icon, double duration) {
  journal_.add("hud show " + quoted(title) + " icon=" + iconText(icon) + " " + fixed3(duration) + "s");
}

void RecordingHud::update(double elapsed, double duration) {
  journal_.add("hud update " + fixed3(elapsed) + "/" + fixed3(duration));
}

void RecordingHud::setReasons(const std::vector<std::string>& reasons) {
  journal_.add("hud reasons " + reasonsText(reasons));
}

void RecordingHud::flash(const std::string& message, const platform::Icon& icon, double seconds) {
  journal_.add("hud flash " + quoted(message) + " icon=" + iconText(icon) + " " + fixed3(seconds) + "s");
}

void RecordingHud::hideNow() { journal_.add("hud hide"); }

bool ScriptedHoldPolicy::isGuarded(guard::Combo combo) const { return guard::comboSwitchedOn(combo, prefs_); }

guard::HoldTime ScriptedHoldPolicy::holdDuration(guard::Combo combo, const std::string& rule) {
  return guard::computeHoldDuration(combo, rule, isCarefulNow(), prefs_, tunables_);
}

bool ScriptedHoldPolicy::hasUnsavedWork(const platform::RunningApp& app) {
  journal_.add("policy unsaved pid=" + std::to_string(app.pid) + " -> " + (unsaved ? "yes" : "no"));
  return unsaved;
}

std::vector<std::string> ScriptedHoldPolicy::busyReasons(const platform::RunningApp& app) {
  journal_.add("policy busy pid=" + std::to_string(app.pid) + " -> " + reasonsText(busy));
  return busy;
}

void ScriptedHoldPolicy::recordAttemptHour(guard::Combo combo) {
  journal_.add("policy hour " + std::string(guard::word(combo)));
}

void ScriptedUndo::restoreLast() { journal_.add("undo restoreLast"); }

std::optional<common::Snap> ScriptedUndo::capture(const platform::RunningApp& app) {
  journal_.add("undo capture pid=" + std::to_string(app.pid) + " -> " + (snaps ? "snap" : "none"));
  if (!snaps) return std::nullopt;
  common::Snap snap;
  snap.bundleID = app.bundleID;
  snap.name = app.localizedName;
  snap.path = app.path;
  snap.pid = app.pid;
  snap.at = loop_.now();
  return snap;
}

void ScriptedUndo::remember(const platform::RunningApp& app, common::Snap snap, guard::HudDisplay& /*hud*/) {
  journal_.add("undo remember pid=" + std::to_string(app.pid) + " snap.pid=" + std::to_string(snap.pid));
}

// MARK: - World and runner

SimWorld::SimWorld() : origin(sim.loop.uptime()) {}

SimWorld::~SimWorld() {
  // The guard goes first: it refers to everything else.
  guard.reset();
}

void addGuardCommands(CommandTable& t) {
  t["pref"] = {"pref KEY JSON", cmdPref, true};
  t["unpref"] = {"unpref KEY", cmdUnpref};
  t["tunable"] = {"tunable KEY VALUE", cmdTunable};
  t["app"] = {"app PID BUNDLE NAME [icon=NAME] [path=PATH]", cmdApp};
  t["remove"] = {"remove PID", cmdRemoveApp};
  t["front"] = {"front PID", cmdFront};
  t["own"] = {"own PID", cmdOwn};
  t["refuse"] = {"refuse PID", cmdRefuse};
  t["equiv"] = {"equiv SET [ID...]", cmdEquiv};
  t["clock"] = {"clock YYYY-MM-DDTHH:MM:SSZ | SECONDS", cmdClock};
  t["tz"] = {"tz +HH:MM | -HH:MM | SECONDS", cmdTz};
  t["tap"] = {"tap trusted|fail|listen yes|no", cmdTap};
  t["policy"] = {"policy careful|unsaved yes|no | policy busy none|REASON...", cmdPolicy};
  t["undo"] = {"undo can|snap yes|no", cmdUndo};
  t["alert"] = {"alert ANSWER", cmdAlert};
  t["background"] = {"background hold|run|release|discard", cmdBackground};
  t["start"] = {"start", cmdStart};
  t["install"] = {"install", cmdInstall};
  t["uninstall"] = {"uninstall", cmdUninstall};
  t["key"] = {"key down|up KEY|code=N [mods] [repeat] [marker] [text=T|none] [unmod=T|none]", cmdKey};
  t["flags"] = {"flags none | [cmd] [shift] [opt] [ctrl]", cmdFlags};
  t["tapdisabled"] = {"tapdisabled timeout|user", cmdTapDisabled};
  t["wait"] = {"wait SECONDS", cmdWait};
  t["state"] = {"state", cmdState};
  t["counter"] = {"counter NAME...", cmdCounter};
}

CommandTable buildCommandTable() {
  CommandTable table;
  addGuardCommands(table);
  addCarefulCommands(table);
  // Other areas add their commands here.
  return table;
}

std::optional<Args> splitWords(const std::string& line, std::string& error,
                               std::vector<std::size_t>* starts) {
  Args words;
  if (starts) starts->clear();
  std::string current;
  bool inWord = false;
  bool inQuotes = false;
  for (std::size_t i = 0; i < line.size(); ++i) {
    const char c = line[i];
    if (inQuotes) {
      if (c == '\\' && i + 1 < line.size() && (line[i + 1] == '"' || line[i + 1] == '\\')) {
        current += line[++i];
      } else if (c == '"') {
        inQuotes = false;
      } else {
        current += c;
      }
      continue;
    }
    if (c == '#') break;
    if (c == ' ' || c == '\t' || c == '\r') {
      if (inWord) words.push_back(std::move(current));
      current.clear();
      inWord = false;
      continue;
    }
    if (!inWord && starts) starts->push_back(i);
    inWord = true;
    if (c == '"')
      inQuotes = true;
    else
      current += c;
  }
  if (inQuotes) {
    error = "unterminated quote";
    return std::nullopt;
  }
  if (inWord) words.push_back(std::move(current));
  return words;
}

Scenario parseScenario(const std::string& text) {
  Scenario s;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (!s.hasExpected && line == "---") {
      s.hasExpected = true;
      continue;
    }
    (s.hasExpected ? s.expected : s.commands).push_back(line);
  }
  while (!s.expected.empty() && s.expected.back().empty()) s.expected.pop_back();
  return s;
}

std::optional<std::vector<std::string>> runScenario(const std::vector<std::string>& commands,
                                                    std::string& error) {
  const CommandTable table = buildCommandTable();
  SimWorld world;
  for (std::size_t n = 0; n < commands.size(); ++n) {
    const auto fail = [&](const std::string& why) {
      error = "line " + std::to_string(n + 1) + ": " + why;
      return std::nullopt;
    };
    std::string splitError;
    std::vector<std::size_t> starts;
    auto words = splitWords(commands[n], splitError, &starts);
    if (!words) return fail(splitError);
    if (words->empty()) continue;
    std::size_t first = 0;
    if ((*words)[0] == "at") {
      double t = 0;
      if (words->size() < 2 || !parseDouble((*words)[1], t)) return fail("usage: at SECONDS [COMMAND ...]");
      const double now = world.elapsed();
      if (t < now - 1e-9) return fail("time goes backwards: at " + (*words)[1] + " after " + fixed3(now));
      world.sim.loop.advance(std::max(t - now, 0.0));
      first = 2;
      if (words->size() == first) continue;
    }
    const auto it = table.find((*words)[first]);
    if (it == table.end()) return fail("unknown command: " + (*words)[first]);
    Args args;
    if (it->second.raw) {
      std::string rest = first + 1 < starts.size() ? commands[n].substr(starts[first + 1]) : std::string();
      while (!rest.empty() && (rest.back() == ' ' || rest.back() == '\t' || rest.back() == '\r'))
        rest.pop_back();
      args.push_back(std::move(rest));
    } else {
      args.assign(words->begin() + static_cast<std::ptrdiff_t>(first) + 1, words->end());
    }
    const std::string why = it->second.run(world, args);
    if (!why.empty()) return fail(why);
    // Work handed to the main queue (background results, the undo hot key) runs before the next
    // input, as it would on a free main thread.
    world.sim.loop.runDue();
  }
  return renderTranscript(world.sim.journal, world.origin);
}

std::vector<std::string> renderTranscript(const Journal& journal, double origin) {
  std::vector<std::string> lines;
  const auto& entries = journal.entries();
  constexpr std::string_view kUpdate = "hud update ";
  for (std::size_t i = 0; i < entries.size(); ++i) {
    const auto& entry = entries[i];
    if (entry.line.compare(0, kUpdate.size(), kUpdate) == 0) {
      std::size_t last = i;
      while (last + 1 < entries.size() && entries[last + 1].line.compare(0, kUpdate.size(), kUpdate) == 0)
        ++last;
      lines.push_back(fixed3(entries[last].time - origin) + " hud update x" + std::to_string(last - i + 1) +
                      " last " + entries[last].line.substr(kUpdate.size()));
      i = last;
      continue;
    }
    lines.push_back(fixed3(entry.time - origin) + " " + entry.line);
  }
  return lines;
}

}  // namespace tarry::simrun
