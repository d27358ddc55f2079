#pragma once

#include "platform/alerts.h"

#include <deque>
#include <vector>

namespace tarry::platform::sim {

/// Alerts answered by the test: each alert takes the next queued answer, or −1 (dismissed) when
/// none is left.
class SimAlerts final : public Alerts {
 public:
  int runModal(const AlertSpec& alert) override {
    shown.push_back(alert);
    if (answers.empty()) return -1;
    const int answer = answers.front();
    answers.pop_front();
    return answer;
  }

  /// Button indices to answer with, oldest first.
  std::deque<int> answers;
  /// Every alert shown, in order.
  std::vector<AlertSpec> shown;
};

}  // namespace tarry::platform::sim
