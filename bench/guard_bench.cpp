// Cost of the guard's tap callback, which runs for every key press of the session: a key that is
// not guarded, and a guarded Ctrl+Q that starts a hold with its counter adds. The preferences live in
// the real SQLite store; the clock, workspace and tap are simulated so that only the guard's own work
// (and the store's) is measured. Background checks are held, as they would run on another thread.
#include "common/counters.h"
#include "diagnostics/basic_app_telemetry.h"
#include "diagnostics/log.h"
#include "guard/basic_hold_policy.h"
#include "guard/guard.h"
#include "guard/no_undo.h"
#include "linux/temp_dir.h"
#include "platform/linux/sqlite_defaults_store.h"
#include "platform/sim/sim_platform.h"
#include "settings/preferences.h"
#include "settings/tunables.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace tarry;
using Clock = std::chrono::steady_clock;

class NullHud final : public guard::HudDisplay {
 public:
  void show(const std::string&, const platform::Icon&, double) override {}
  void update(double, double) override {}
  void setReasons(const std::vector<std::string>&) override {}
  void flash(const std::string&, const platform::Icon&, double) override {}
  void hideNow() override {}
};

/// The guard with everything it needs; the store is the SQLite one, in a fresh directory.
struct Rig {
  Rig() {
    sim.workspace.addApp({"com.apple.Safari", "Safari", {"safari", 0, 0, nullptr}, 501, "", true});
    sim.workspace.setFrontmost(501);
    sim.loop.setHoldBackground(true);
    (void)guard.installTap();
  }

  /// NOTE: first, so that it is removed after the store has closed its file.
  tarry::testing::TempDir dir;
  platform::os::SqliteDefaultsStore store{dir / "defaults.sqlite3"};
  platform::sim::SimPlatform sim;
  settings::Preferences prefs{store};
  settings::Tunables tunables;
  common::Counters counters{store, sim.loop};
  diagnostics::Log log{sim.loop, sim.files, store, tunables};
  diagnostics::BasicAppTelemetry telemetry{sim.workspace};
  guard::BasicHoldPolicy policy{prefs, tunables};
  guard::NoUndo undo;
  NullHud hud;
  guard::Guard guard{guard::GuardDeps{sim.loop, sim.tap, sim.workspace, sim.sound, sim.activity, prefs,
                                      tunables, counters, log, hud, policy, undo, telemetry}};
};

platform::KeyEvent keyDown(std::int64_t code, std::uint64_t flags, std::u16string text) {
  platform::KeyEvent e;
  e.type = platform::EventType::keyDown;
  e.keyCode = code;
  e.flags = flags;
  e.text = std::move(text);
  e.unmodifiedText = e.text;
  return e;
}

/// Median and 99th percentile of per-call times, reported as counters in microseconds.
void reportPercentiles(benchmark::State& state, std::vector<double>& seconds) {
  if (seconds.empty()) return;
  std::sort(seconds.begin(), seconds.end());
  const auto at = [&](double q) {
    return seconds[static_cast<std::size_t>(q * static_cast<double>(seconds.size() - 1))];
  };
  state.counters["p50_us"] = at(0.50) * 1e6;
  state.counters["p99_us"] = at(0.99) * 1e6;
  state.counters["max_us"] = seconds.back() * 1e6;
}

/// A plain key (Ctrl+A here, which is neither guarded nor the undo hot key) goes straight through.
void BM_TapCallbackUnguardedKey(benchmark::State& state) {
  Rig rig;
  const auto event = keyDown(0, platform::kFlagCommand, u"a");
  std::vector<double> samples;
  samples.reserve(1 << 20);
  for (auto _ : state) {
    const auto start = Clock::now();
    benchmark::DoNotOptimize(rig.sim.tap.inject(event));
    const auto end = Clock::now();
    if (samples.size() < samples.capacity())
      samples.push_back(std::chrono::duration<double>(end - start).count());
  }
  reportPercentiles(state, samples);
}
BENCHMARK(BM_TapCallbackUnguardedKey);

/// Ctrl+Q over Safari: classification, the preference reads, six counter writes, the hold start and its
/// ticker. Only the key-down is timed; the key-up that cancels the hold between presses is not.
void BM_TapCallbackGuardedQuitStartsHold(benchmark::State& state) {
  Rig rig;
  const auto down = keyDown(platform::kKeyQ, platform::kFlagCommand, u"q");
  auto up = down;
  up.type = platform::EventType::keyUp;
  std::vector<double> samples;
  samples.reserve(1 << 18);
  for (auto _ : state) {
    const auto start = Clock::now();
    const auto verdict = rig.sim.tap.inject(down);
    const auto end = Clock::now();
    benchmark::DoNotOptimize(verdict);
    const double elapsed = std::chrono::duration<double>(end - start).count();
    state.SetIterationTime(elapsed);
    if (samples.size() < samples.capacity()) samples.push_back(elapsed);
    (void)rig.sim.tap.inject(up);
    rig.sim.loop.discardBackground();
    rig.sim.loop.advance(0.02);  // lets the loop drop the cancelled ticker
  }
  reportPercentiles(state, samples);
}
BENCHMARK(BM_TapCallbackGuardedQuitStartsHold)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
