// Main-thread cost of what the user opens: the tray menu's refresh of every dynamic row (recents,
// counter row, Undo Quit, pause) and one Statistics refresh, each with the real Qt views (drawn
// offscreen) over the SQLite preferences store.
#include "platform/linux/sqlite_defaults_store.h"

#include "app/status_menu.h"
#include "linux/temp_dir.h"
#include "platform/qt/qt_main_loop.h"
#include "platform/qt/qt_stats_window.h"
#include "platform/qt/qt_status_item.h"
#include "stats/stats_controller.h"

#include <QApplication>

#include <benchmark/benchmark.h>

#include <memory>
#include <string>

namespace {

using namespace tarry;

class NoAlerts final : public platform::Alerts {
 public:
  int runModal(const platform::AlertSpec&) override { return -1; }
};
class NoClipboard final : public platform::Clipboard {
 public:
  void setText(const std::string&) override {}
};

struct World {
  World() : store(dir / "defaults.sqlite3"), counters(store, loop) {
    counters.start();
    platform::Value recents = platform::Value::array();
    for (int i = 0; i < 10; ++i) {
      recents.push_back({{"name", "App " + std::to_string(i)},
                         {"path", "/usr/share/applications/app" + std::to_string(i) + ".desktop"}});
    }
    store.set("recents", recents);
    store.set("pauseUntil", loop.now() + 600);
    counters.add("saved", 3);
  }
  tarry::testing::TempDir dir;
  platform::qt::QtMainLoop loop;
  platform::os::SqliteDefaultsStore store;
  common::Counters counters;
};

void BM_MenuOpeningRefresh(benchmark::State& state) {
  World world;
  app::StatusMenuHooks hooks;
  hooks.tapInstalled = [] { return true; };
  hooks.undoTitle = [] { return std::optional<std::string>("Undo Quit Mail"); };
  app::StatusMenu menu(std::make_unique<platform::qt::QtStatusItem>(0), world.store, world.counters,
                       world.loop, hooks);
  menu.refreshStatus();
  int n = 0;
  for (auto _ : state) {
    // A blocked quit between two openings, so the counter row really changes each time.
    world.counters.add("saved", 1);
    if (++n % 2 == 0) world.store.set("recents", world.store.get("recents").value_or(platform::Value()));
    menu.menuNeedsUpdate();
  }
}
BENCHMARK(BM_MenuOpeningRefresh)->Iterations(2000)->Unit(benchmark::kMicrosecond);

void BM_StatisticsRefresh(benchmark::State& state) {
  World world;
  NoAlerts alerts;
  NoClipboard clipboard;
  stats::StatsController controller(std::make_unique<platform::qt::QtStatsWindow>(), "Tarry", world.counters,
                                    world.store, world.loop, alerts, clipboard);
  controller.show();
  for (auto _ : state) {
    world.counters.add("quit", 1);  // every refresh has new figures to draw
    controller.refresh();
  }
}
BENCHMARK(BM_StatisticsRefresh)->Iterations(2000)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  qputenv("QT_QPA_PLATFORM", "offscreen");
  QApplication application(argc, argv);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
