#include "stats/stats_controller.h"

#include "guard/combo.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <utility>

namespace tarry::stats {
namespace {

constexpr double kRefreshSec = 1.0;

std::int64_t wholeSecondsSince(double since, double now) {
  const double s = std::floor(now - since);
  return s > 0 ? static_cast<std::int64_t>(s) : 0;
}

}  // namespace

std::vector<Metric> shownMetrics() {
  return {
      {"Accidental quits blocked", "saved"},
      {"Quits you confirmed", "quit"},
      {"Protected-app quits stopped", "protected"},
      {"Unsaved-work warnings", "unsaved"},
      {std::string(guard::keysText(guard::Shortcut::close)) + " presses blocked", "wblocked"},
      {std::string(guard::keysText(guard::Shortcut::logout)) + " presses blocked", "lblocked"},
      {"Apps reopened from the list", "reopened"},
      {"Apps closed by Quit All Others", "bulk"},
  };
}

std::string elapsedText(std::int64_t s) {
  if (s < 0) s = 0;
  char text[48];
  std::snprintf(text, sizeof text, "%lldd %02lldh %02lldm %02llds", static_cast<long long>(s / 86400),
                static_cast<long long>((s % 86400) / 3600), static_cast<long long>((s % 3600) / 60),
                static_cast<long long>(s % 60));
  return text;
}

std::string dateText(double secondsSince1970, const platform::MainLoop& loop) {
  static constexpr std::array<const char*, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const platform::CalendarFields f = loop.localTime(secondsSince1970);
  char text[48];
  std::snprintf(text, sizeof text, "%d %s %04d, %02d:%02d:%02d", f.day,
                kMonths[static_cast<std::size_t>(std::clamp(f.month, 1, 12) - 1)], f.year, f.hour, f.minute,
                f.second);
  return text;
}

StatsController::StatsController(std::unique_ptr<platform::StatsView> view, std::string name,
                                 common::Counters& counters, platform::DefaultsStore& store,
                                 platform::MainLoop& loop, platform::Alerts& alerts,
                                 platform::Clipboard& clipboard)
    : appName(std::move(name)),
      metrics(shownMetrics()),
      view_(std::move(view)),
      counters_(counters),
      store_(store),
      loop_(loop),
      alerts_(alerts),
      clipboard_(clipboard) {
  platform::StatsTexts texts;
  texts.title = appName + " Statistics";
  texts.columnHeads = {"Today", "This period", "All time"};
  for (const Metric& m : metrics) texts.metricTitles.push_back(m.title);
  texts.autoLabel = "Start a new period automatically:";
  texts.autoItems = {"Never", "Every day", "Every week", "Every month"};
  texts.newPeriodTitle = "Start New Period…";
  texts.copyTitle = "Copy Stats";
  view_->setTexts(texts);
  view_->setActions(this);
}

StatsController::~StatsController() { view_->setActions(nullptr); }

void StatsController::show() {
  refresh();
  view_->present();
  if (!timer.active()) timer = loop_.every(kRefreshSec, [this] { refresh(); });
}

platform::StatsFigures StatsController::read() const {
  platform::StatsFigures f;
  f.cells.reserve(metrics.size());
  for (const Metric& m : metrics) {
    f.cells.push_back({std::to_string(counters_.today(m.name)), std::to_string(counters_.period(m.name)),
                       std::to_string(counters_.allTime(m.name))});
  }
  const double now = loop_.now();
  const double periodSince = counters_.periodSince();
  const double allSince = counters_.allSince();
  f.periodInfo = "This period began " + dateText(periodSince, loop_) + "\nRunning for " +
                 elapsedText(wholeSecondsSince(periodSince, now));
  f.allInfo = "Counting all-time since " + dateText(allSince, loop_) + "\nThat is " +
              elapsedText(wholeSecondsSince(allSince, now)) + " ago";
  f.autoIndex = counters_.autoChoice();
  return f;
}

void StatsController::refresh() {
  platform::StatsFigures f = read();
  if (f == figures_) return;
  figures_ = std::move(f);
  view_->setFigures(figures_);
}

std::string StatsController::copyText() const {
  const platform::StatsFigures f = read();
  std::string text = appName + " statistics, copied " + dateText(loop_.now(), loop_) + "\n";
  text += "This period since " + dateText(counters_.periodSince(), loop_) + " · all-time since " +
          dateText(counters_.allSince(), loop_) + "\n";
  text += "Metric: today / this period / all time\n";
  for (std::size_t i = 0; i < metrics.size(); ++i) {
    text += metrics[i].title + ": " + f.cells[i][0] + " / " + f.cells[i][1] + " / " + f.cells[i][2];
    if (i + 1 < metrics.size()) text += "\n";
  }
  return text;
}

void StatsController::autoChanged(int index) {
  store_.set("stats.auto", std::clamp(index, 0, 3));
  // A shorter automatic period may already be over.
  (void)counters_.checkAutoPeriod();
  refresh();
}

void StatsController::resetPeriod() {
  const platform::AlertSpec alert{
      "Start a new period?", "“All time” keeps going.", {"Start New Period", "Cancel"}};
  if (alerts_.runModal(alert) != 0) return;
  counters_.startNewPeriod();
  refresh();
}

void StatsController::copyStats() { clipboard_.setText(copyText()); }

void StatsController::windowWillClose() { timer.cancel(); }

}  // namespace tarry::stats
