#pragma once

#include <array>
#include <string>
#include <vector>

namespace tarry::platform {

/// The fixed texts of the Statistics window.
struct StatsTexts {
  std::string title;
  /// Heads of the three value columns.
  std::array<std::string, 3> columnHeads;
  /// One title per metric row, top to bottom.
  std::vector<std::string> metricTitles;
  std::string autoLabel;
  std::vector<std::string> autoItems;
  std::string newPeriodTitle;
  std::string copyTitle;
};

/// What changes every refresh.
struct StatsFigures {
  /// Per metric: today, this period, all time.
  std::vector<std::array<std::string, 3>> cells;
  std::string periodInfo;
  std::string allInfo;
  int autoIndex = 0;

  friend bool operator==(const StatsFigures&, const StatsFigures&) = default;
};

/// What the Statistics window reports; the presenter implements it.
class StatsActions {
 public:
  StatsActions() = default;
  StatsActions(const StatsActions&) = delete;
  StatsActions& operator=(const StatsActions&) = delete;
  virtual ~StatsActions() = default;

  /// The user picked item `index` of the automatic-period pop-up.
  virtual void autoChanged(int index) = 0;
  /// "Start New Period…" pressed.
  virtual void resetPeriod() = 0;
  /// "Copy Stats" pressed.
  virtual void copyStats() = 0;
  /// The window is closing (or was hidden).
  virtual void windowWillClose() = 0;
};

/// The Statistics window: draws what it is told.
class StatsView {
 public:
  StatsView() = default;
  StatsView(const StatsView&) = delete;
  StatsView& operator=(const StatsView&) = delete;
  virtual ~StatsView() = default;

  virtual void setActions(StatsActions* actions) = 0;
  virtual void setTexts(const StatsTexts& texts) = 0;
  virtual void setFigures(const StatsFigures& figures) = 0;
  /// Shows the window (centred the first time) and brings it forward.
  virtual void present() = 0;
};

/// The desktop's clipboard.
class Clipboard {
 public:
  Clipboard() = default;
  Clipboard(const Clipboard&) = delete;
  Clipboard& operator=(const Clipboard&) = delete;
  virtual ~Clipboard() = default;

  /// Puts plain text on the clipboard.
  virtual void setText(const std::string& text) = 0;
};

}  // namespace tarry::platform
