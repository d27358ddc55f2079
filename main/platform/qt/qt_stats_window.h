#pragma once

#include "platform/stats_view.h"

#include <QWidget>

#include <array>
#include <vector>

class QComboBox;
class QGridLayout;
class QLabel;
class QPushButton;

namespace tarry::platform::qt {

/// The Statistics window: a grid of the metrics for today, this period and all time, two lines on
/// when counting began, the automatic-period pop-up and the two buttons. 540 × 400.
/// NOTE: closing only hides it; the owner keeps it for the next opening.
class QtStatsWindow final : public QWidget, public StatsView {
  Q_OBJECT

 public:
  explicit QtStatsWindow(QWidget* parent = nullptr);

  void setActions(StatsActions* actions) override { actions_ = actions; }
  void setTexts(const StatsTexts& texts) override;
  void setFigures(const StatsFigures& figures) override;
  void present() override;

  static constexpr int kWidth = 540;
  static constexpr int kHeight = 400;

 protected:
  void hideEvent(QHideEvent* event) override;

 private:
  StatsActions* actions_ = nullptr;
  QGridLayout* grid_ = nullptr;
  std::array<QLabel*, 3> heads_{};
  std::vector<QLabel*> titles_;
  std::vector<std::array<QLabel*, 3>> cells_;
  QLabel* periodInfo_ = nullptr;
  QLabel* allInfo_ = nullptr;
  QLabel* autoLabel_ = nullptr;
  QComboBox* autoBox_ = nullptr;
  QPushButton* newPeriod_ = nullptr;
  QPushButton* copy_ = nullptr;
};

}  // namespace tarry::platform::qt
