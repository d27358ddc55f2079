// Undo Quit and RAM Saver work on a real X11 desktop (private Xvfb + openbox):
//  - the capture of an app with 20 windows (titles, frames, minimized), which runs off the main
//    thread while the user holds Ctrl+Q;
//  - one RAM Saver scan of 100 running apps (each its own process and window), the part that runs
//    on the main thread: listing the apps and the candidate test of every one.
#include "actions/ram_saver.h"
#include "actions/undo.h"
#include "common/counters.h"
#include "platform/linux/desktop_entry_reader.h"
#include "platform/linux/proc_process_info.h"
#include "platform/sim/memory_defaults_store.h"
#include "platform/sim/sim_main_loop.h"
#include "platform/x11/x11_display.h"
#include "platform/x11/x11_window_list.h"
#include "platform/x11/x11_workspace.h"
#include "settings/preferences.h"
#include "settings/tunables.h"
#include "x_server.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>

namespace {

using namespace tarry;

struct NoHud final : guard::HudDisplay {
  void show(const std::string&, const platform::Icon&, double) override {}
  void update(double, double) override {}
  void setReasons(const std::vector<std::string>&) override {}
  void flash(const std::string&, const platform::Icon&, double) override {}
  void hideNow() override {}
};

struct NoKeys final : platform::EventTap {
  bool isTrusted() override { return true; }
  std::unique_ptr<platform::TapHandle> create(Callback) override { return nullptr; }
  std::string lastError() const override { return {}; }
  bool listenAccessGranted() override { return true; }
  void requestListenAccess() override {}
  void post(const platform::KeyEvent&) override {}
};

struct NoLauncher final : platform::AppLauncher {
  bool launch(const std::string&, const std::vector<std::string>&) override { return false; }
};

/// The desktop shared by both benchmarks, started once.
struct Desktop {
  test::XServer x{true};
  std::unique_ptr<test::Process> many;
  std::vector<std::unique_ptr<test::Process>> apps;
  std::unique_ptr<platform::x11::X11Display> display;

  Desktop() {
    if (!x.ok()) return;
    many = std::make_unique<test::Process>(
        x.display(), std::vector<std::string>{TARRY_TEST_CLIENT, "--windows", "20", "--class", "many,Many"});
    for (int i = 0; i < 99; ++i) {
      apps.push_back(std::make_unique<test::Process>(
          x.display(), std::vector<std::string>{TARRY_TEST_CLIENT, "--class",
                                                "app" + std::to_string(i) + ",App" + std::to_string(i),
                                                "--geometry", "200x100+" + std::to_string(i * 7) + "+40"}));
    }
    std::string error;
    display = platform::x11::X11Display::open(x.display(), error);
    // Wait until the window manager manages all 119 windows.
    for (int i = 0; i < 600 && display && display->clients().size() < 119; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  }
};

Desktop& desktop() {
  static Desktop d;
  return d;
}

void BM_CaptureTwentyWindows(benchmark::State& state) {
  Desktop& d = desktop();
  if (!d.display) {
    state.SkipWithError("no X server");
    return;
  }
  platform::x11::X11WindowList windows(*d.display);
  std::size_t count = 0;
  for (auto _ : state) {
    auto list = windows.windowsOf(d.many->pid());
    count = list.size();
    benchmark::DoNotOptimize(list);
  }
  if (count != 20) state.SkipWithError("the app does not show 20 windows");
  state.counters["windows"] = static_cast<double>(count);
}
BENCHMARK(BM_CaptureTwentyWindows)->Unit(benchmark::kMillisecond);

void BM_RamSaverScanOfHundredApps(benchmark::State& state) {
  Desktop& d = desktop();
  if (!d.display) {
    state.SkipWithError("no X server");
    return;
  }
  platform::os::DesktopEntryReader entries;
  platform::x11::X11Workspace workspace(*d.display, entries);
  platform::x11::X11WindowList windows(*d.display);
  platform::os::ProcProcessInfo processes;
  platform::sim::SimMainLoop loop;
  platform::sim::MemoryDefaultsStore store;
  settings::Preferences prefs(store);
  settings::Tunables tunables;
  common::Counters counters(store, loop);
  NoHud hud;
  NoKeys keys;
  NoLauncher launcher;
  actions::Undo undo({loop, workspace, windows, launcher, keys, prefs, tunables, counters, hud});
  actions::RamSaver saver({loop, workspace, processes, undo, prefs, tunables, counters, hud});
  // Every app goes through the whole candidate test and is kept as "0 min ago": nothing is quit.
  prefs.setDouble("ramSaverHours", 8);
  std::size_t apps = workspace.runningApplications().size();
  for (auto _ : state) saver.run();
  state.counters["apps"] = static_cast<double>(apps);
  if (apps < 100) state.SkipWithError("fewer than 100 apps are running");
}
BENCHMARK(BM_RamSaverScanOfHundredApps)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
