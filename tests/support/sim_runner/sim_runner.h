#pragma once

#include "common/counters.h"
#include "diagnostics/basic_app_telemetry.h"
#include "diagnostics/log.h"
#include "guard/guard.h"
#include "guard/hold_policy.h"
#include "guard/hud_display.h"
#include "guard/undo_hooks.h"
#include "platform/sim/sim_platform.h"
#include "settings/preferences.h"
#include "settings/tunables.h"
#include "sim_careful.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tarry::simrun {

using platform::sim::Journal;

/// The preferences domain, recording every counter add (the `all.` step of each) in the journal.
class RecordingStore final : public platform::DefaultsStore {
 public:
  RecordingStore(platform::DefaultsStore& inner, Journal& journal) : inner_(inner), journal_(journal) {}
  [[nodiscard]] std::optional<platform::Value> get(std::string_view key) const override {
    return inner_.get(key);
  }
  void set(std::string_view key, platform::Value value) override { inner_.set(key, std::move(value)); }
  void remove(std::string_view key) override { inner_.remove(key); }
  [[nodiscard]] std::vector<std::string> keys(std::string_view prefix) const override {
    return inner_.keys(prefix);
  }
  std::int64_t addInteger(std::string_view key, std::int64_t amount) override;
  void flush() override { inner_.flush(); }

 private:
  platform::DefaultsStore& inner_;
  Journal& journal_;
};

/// The file system, recording every record appended to "events.log".
class RecordingFiles final : public platform::FileSystem {
 public:
  RecordingFiles(platform::FileSystem& inner, Journal& journal) : inner_(inner), journal_(journal) {}
  [[nodiscard]] std::string tempDirectory() const override { return inner_.tempDirectory(); }
  [[nodiscard]] bool exists(const std::string& path) const override { return inner_.exists(path); }
  bool createDirectories(const std::string& path) override { return inner_.createDirectories(path); }
  bool append(const std::string& path, std::string_view bytes) override;
  bool write(const std::string& path, std::string_view bytes) override { return inner_.write(path, bytes); }
  [[nodiscard]] std::optional<std::uint64_t> size(const std::string& path) const override {
    return inner_.size(path);
  }
  [[nodiscard]] std::optional<std::string> readTail(const std::string& path,
                                                    std::uint64_t maxBytes) const override {
    return inner_.readTail(path, maxBytes);
  }
  [[nodiscard]] std::optional<std::vector<std::string>> list(const std::string& path) const override {
    return inner_.list(path);
  }
  [[nodiscard]] std::string newUUID() override { return inner_.newUUID(); }
  [[nodiscard]] std::string stateDirectory() const override { return inner_.stateDirectory(); }
  bool restrictToOwner(const std::string& path) override { return inner_.restrictToOwner(path); }
  bool remove(const std::string& path) override { return inner_.remove(path); }
  [[nodiscard]] std::optional<double> modified(const std::string& path) const override {
    return inner_.modified(path);
  }

 private:
  platform::FileSystem& inner_;
  Journal& journal_;
};

/// The event tap, recording every event the tap callback sees and its verdict.
class RecordingTap final : public platform::EventTap {
 public:
  RecordingTap(platform::sim::SimEventTap& inner, Journal& journal) : inner_(inner), journal_(journal) {}
  [[nodiscard]] bool isTrusted() override { return inner_.isTrusted(); }
  [[nodiscard]] std::unique_ptr<platform::TapHandle> create(Callback callback) override;
  [[nodiscard]] std::string lastError() const override { return inner_.lastError(); }
  [[nodiscard]] bool listenAccessGranted() override { return inner_.listenAccessGranted(); }
  void requestListenAccess() override;
  void post(const platform::KeyEvent& event) override { inner_.post(event); }
  [[nodiscard]] std::string problem() const override { return inner_.problem(); }

 private:
  platform::sim::SimEventTap& inner_;
  Journal& journal_;
};

/// Power activities, recording when they begin and end.
class RecordingActivity final : public platform::Activity {
 public:
  explicit RecordingActivity(Journal& journal) : journal_(journal) {}
  [[nodiscard]] std::unique_ptr<platform::ActivityToken> begin(std::string_view reason) override;

 private:
  Journal& journal_;
};

/// The per-app records of the usage events, writing each event sent to the transcript.
class RecordingTelemetry final : public diagnostics::AppTelemetry {
 public:
  RecordingTelemetry(const platform::Workspace& workspace, Journal& journal)
      : inner_(workspace), journal_(journal) {}
  void recordAppSeen(const std::string& bundleID, std::string_view kind) override {
    inner_.recordAppSeen(bundleID, kind);
  }
  [[nodiscard]] std::string category(const platform::RunningApp& app) override {
    return inner_.category(app);
  }
  void event(const std::string& name) override { journal_.add("telemetry " + name); }

 private:
  diagnostics::BasicAppTelemetry inner_;
  Journal& journal_;
};

/// A HUD that only records what it was asked to show.
class RecordingHud final : public guard::HudDisplay {
 public:
  explicit RecordingHud(Journal& journal) : journal_(journal) {}
  void show(const std::string& title, const platform::Icon& icon, double duration) override;
  void update(double elapsed, double duration) override;
  void setReasons(const std::vector<std::string>& reasons) override;
  void flash(const std::string& message, const platform::Icon& icon, double seconds) override;
  void hideNow() override;

 private:
  Journal& journal_;
};

/// A hold policy answering from the script; hold times still come from `computeHoldDuration`.
class ScriptedHoldPolicy final : public guard::HoldPolicy {
 public:
  ScriptedHoldPolicy(const settings::Preferences& prefs, const settings::Tunables& tunables, Journal& journal)
      : prefs_(prefs), tunables_(tunables), journal_(journal) {}
  [[nodiscard]] bool isGuarded(guard::Combo combo) const override;
  [[nodiscard]] guard::HoldTime holdDuration(guard::Combo combo, const std::string& rule) override;
  [[nodiscard]] bool isCarefulNow() override { return careful; }
  [[nodiscard]] bool hasUnsavedWork(const platform::RunningApp& app) override;
  [[nodiscard]] std::vector<std::string> busyReasons(const platform::RunningApp& app) override;
  void recordAttemptHour(guard::Combo combo) override;

  bool careful = false;
  bool unsaved = false;
  std::vector<std::string> busy;

 private:
  const settings::Preferences& prefs_;
  const settings::Tunables& tunables_;
  Journal& journal_;
};

/// Undo Quit answering from the script.
class ScriptedUndo final : public guard::UndoHooks {
 public:
  ScriptedUndo(const platform::MainLoop& loop, Journal& journal) : loop_(loop), journal_(journal) {}
  [[nodiscard]] bool canUndo() override { return can; }
  void restoreLast() override;
  [[nodiscard]] std::optional<common::Snap> capture(const platform::RunningApp& app) override;
  void remember(const platform::RunningApp& app, common::Snap snap, guard::HudDisplay& hud) override;

  bool can = false;
  bool snaps = false;

 private:
  const platform::MainLoop& loop_;
  Journal& journal_;
};

/// Everything a scenario runs against: the simulated platform, the recorders around it and the
/// real logic on top.
struct SimWorld {
  SimWorld();
  ~SimWorld();
  SimWorld(const SimWorld&) = delete;
  SimWorld& operator=(const SimWorld&) = delete;

  platform::sim::SimPlatform sim;
  RecordingStore store{sim.defaults, sim.journal};
  RecordingFiles files{sim.files, sim.journal};
  RecordingTap tap{sim.tap, sim.journal};
  RecordingActivity activity{sim.journal};
  RecordingHud hud{sim.journal};
  settings::Preferences prefs{store};
  settings::Tunables tunables;
  ScriptedHoldPolicy policy{prefs, tunables, sim.journal};
  ScriptedUndo undo{sim.loop, sim.journal};
  common::Counters counters{store, sim.loop};
  /// Careful mode on simulated processes, sound and windows (`careful on`).
  CarefulSim careful{prefs, tunables, sim.loop, sim.workspace, counters, sim.journal};
  diagnostics::Log log{sim.loop, files, store, tunables};
  RecordingTelemetry telemetry{sim.workspace, sim.journal};
  /// Made by the `start` command.
  std::unique_ptr<guard::Guard> guard;
  /// Answers for alerts, in the order they will be asked for.
  std::deque<std::string> alertAnswers;
  /// Uptime at which the scenario began; transcript times are counted from here.
  double origin = 0;

  /// The policy `start` hands to the guard: the careful one after `careful on`, else the scripted one.
  [[nodiscard]] guard::HoldPolicy& holdPolicy() {
    return careful.on ? static_cast<guard::HoldPolicy&>(careful.policy) : policy;
  }
  /// Seconds since the scenario began.
  [[nodiscard]] double elapsed() const { return sim.loop.uptime() - origin; }
  /// Adds a line to the transcript at the current virtual time.
  void note(std::string line) { sim.journal.add(std::move(line)); }
};

/// The words of one scenario line; quoted words keep their spaces and may be empty.
using Args = std::vector<std::string>;

/// One scenario command: `run` gets the words after the command's name and returns an error text,
/// or "" when the line was fine. A `raw` command gets one word instead: the rest of the line as
/// written (quotes and '#' kept), for values such as JSON.
struct Command {
  std::string usage;
  std::function<std::string(SimWorld&, const Args&)> run;
  bool raw = false;
};

using CommandTable = std::map<std::string, Command, std::less<>>;

/// The commands of the guard core: setup, inputs, clock and queries.
void addGuardCommands(CommandTable& table);
/// The commands of careful mode: processes, sound, windows and `careful on`.
void addCarefulCommands(CommandTable& table);
/// Every command the runner knows. Each area adds its own `add…Commands` here.
[[nodiscard]] CommandTable buildCommandTable();

/// A finite number written out in full ("2.5", "1e3"); false for anything else.
[[nodiscard]] bool parseDouble(const std::string& s, double& out);
/// A whole number from 0 to 2147483647.
[[nodiscard]] bool parsePid(const std::string& s, std::int32_t& out);
/// Transcript form of a list of reasons: each quoted, separated by spaces; "none" when empty.
[[nodiscard]] std::string reasonsText(const std::vector<std::string>& reasons);

/// Splits a scenario line into words: white space separates, "…" quotes (\" and \\ escape inside),
/// '#' outside quotes starts a comment. `starts`, when given, receives where each word begins.
[[nodiscard]] std::optional<Args> splitWords(const std::string& line, std::string& error,
                                             std::vector<std::size_t>* starts = nullptr);

/// A scenario file split into its commands and its expected transcript (the lines after "---").
struct Scenario {
  std::vector<std::string> commands;
  std::vector<std::string> expected;
  bool hasExpected = false;
};
[[nodiscard]] Scenario parseScenario(const std::string& text);

/// Runs the commands; the transcript lines on success, nothing with `error` set ("line N: …").
[[nodiscard]] std::optional<std::vector<std::string>> runScenario(const std::vector<std::string>& commands,
                                                                  std::string& error);

/// The journal as transcript lines: "<seconds, 3 decimals> <entry>", consecutive HUD updates folded
/// into one line.
[[nodiscard]] std::vector<std::string> renderTranscript(const Journal& journal, double origin);

}  // namespace tarry::simrun
