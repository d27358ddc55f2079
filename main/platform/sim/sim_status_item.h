#pragma once

#include "platform/status_item.h"

#include <array>
#include <string>
#include <vector>

namespace tarry::platform::sim {

/// A tray item that remembers what it was told and counts the calls, so tests can see both the
/// state and needless updates.
class SimStatusItem final : public StatusItemView {
 public:
  void setActions(StatusMenuActions* a) override { actions = a; }
  void setItemShown(bool on, const std::string& name) override {
    shown = on;
    accessibleName = name;
    ++showCalls;
  }
  void setIcon(const std::string& name) override {
    icon = name;
    ++iconCalls;
  }
  void setBadge(const StatusBadge& b) override {
    badge = b;
    ++badgeCalls;
  }
  void setRow(MenuRow row, const MenuRowState& state) override {
    rows[static_cast<std::size_t>(row)] = state;
    ++rowCalls;
  }
  void setRecents(const std::vector<RecentRow>& r) override {
    recents = r;
    ++recentCalls;
  }

  [[nodiscard]] const MenuRowState& row(MenuRow r) const { return rows[static_cast<std::size_t>(r)]; }

  StatusMenuActions* actions = nullptr;
  bool shown = false;
  std::string accessibleName;
  std::string icon;
  StatusBadge badge;
  std::array<MenuRowState, kMenuRowCount> rows{};
  std::vector<RecentRow> recents;
  int showCalls = 0;
  int iconCalls = 0;
  int badgeCalls = 0;
  int rowCalls = 0;
  int recentCalls = 0;
};

}  // namespace tarry::platform::sim
