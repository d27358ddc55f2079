#pragma once

#include "common/counters.h"
#include "platform/alerts.h"
#include "platform/defaults_store.h"
#include "platform/main_loop.h"
#include "platform/stats_view.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace tarry::stats {

/// One metric shown to the user: its title and its counter name.
struct Metric {
  std::string title;
  std::string name;
};

/// The eight metrics, in display order.
[[nodiscard]] std::vector<Metric> shownMetrics();
/// "1d 01h 01m 01s" for whole seconds (negative reads as 0).
[[nodiscard]] std::string elapsedText(std::int64_t seconds);
/// A moment as "d MMM yyyy, HH:mm:ss" in local time.
[[nodiscard]] std::string dateText(double secondsSince1970, const platform::MainLoop& loop);

/// Presents the Statistics window: the eight metrics for today, this period and all time, when the
/// period and the all-time count began, the automatic period, starting a new period and copying the
/// figures. It refreshes once a second only while the window is open.
class StatsController final : public platform::StatsActions {
 public:
  StatsController(std::unique_ptr<platform::StatsView> view, std::string appName, common::Counters& counters,
                  platform::DefaultsStore& store, platform::MainLoop& loop, platform::Alerts& alerts,
                  platform::Clipboard& clipboard);
  ~StatsController() override;
  StatsController(const StatsController&) = delete;
  StatsController& operator=(const StatsController&) = delete;

  /// Refreshes, shows the window and starts the one-second refresh.
  void show();
  /// Reads every figure again and hands it to the view.
  void refresh();
  /// The text "Copy Stats" puts on the clipboard.
  [[nodiscard]] std::string copyText() const;

  void autoChanged(int index) override;
  void resetPeriod() override;
  void copyStats() override;
  void windowWillClose() override;

  [[nodiscard]] bool timerRunning() const { return timer.active(); }
  /// The figures last given to the view.
  [[nodiscard]] const platform::StatsFigures& figures() const { return figures_; }

  const std::string appName;
  const std::vector<Metric> metrics;

 private:
  [[nodiscard]] platform::StatsFigures read() const;

  std::unique_ptr<platform::StatsView> view_;
  common::Counters& counters_;
  platform::DefaultsStore& store_;
  platform::MainLoop& loop_;
  platform::Alerts& alerts_;
  platform::Clipboard& clipboard_;
  platform::StatsFigures figures_;
  platform::Scheduled timer;
};

}  // namespace tarry::stats
