#pragma once

#include "platform/app_launcher.h"
#include "platform/sim/journal.h"
#include "platform/window_list.h"

#include <cmath>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace tarry::platform::sim {

/// Windows per process, set up by the test; `setFrame` moves them and is journalled.
class SimWindowList final : public WindowList {
 public:
  explicit SimWindowList(Journal* journal = nullptr) : journal_(journal) {}

  [[nodiscard]] std::vector<WindowInfo> windowsOf(std::int32_t pid) override {
    std::lock_guard lock(mutex_);
    const auto it = byPid.find(pid);
    return it == byPid.end() ? std::vector<WindowInfo>{} : it->second;
  }
  bool setFrame(std::uint32_t id, double x, double y, double width, double height, bool minimized) override {
    std::lock_guard lock(mutex_);
    for (auto& [pid, list] : byPid) {
      for (auto& w : list) {
        if (w.id != id) continue;
        if (minimized) {
          w.minimized = true;
        } else {
          w.x = x, w.y = y, w.width = width, w.height = height, w.minimized = false;
        }
        char line[160];
        if (minimized) {
          std::snprintf(line, sizeof line, "window %u minimize", id);
        } else {
          std::snprintf(line, sizeof line, "window %u frame %.0f,%.0f %.0fx%.0f", id, x, y, width, height);
        }
        if (journal_) journal_->add(line);
        return true;
      }
    }
    return false;
  }

  /// Windows of each process, front to back.
  std::map<std::int32_t, std::vector<WindowInfo>> byPid;

 private:
  Journal* journal_;
  std::mutex mutex_;
};

/// Records launches; `onLaunch` lets the test start the app (add it to the workspace and give it
/// windows). Paths in `missing` fail as if they no longer existed.
class SimLauncher final : public AppLauncher {
 public:
  explicit SimLauncher(Journal* journal = nullptr) : journal_(journal) {}

  bool launch(const std::string& path, const std::vector<std::string>& documents) override {
    launches.push_back(path);
    if (journal_) journal_->add("launch " + path + (documents.empty() ? "" : " with documents"));
    if (missing.count(path) != 0) return false;
    if (onLaunch) onLaunch(path);
    return true;
  }

  std::vector<std::string> launches;
  std::set<std::string> missing;
  std::function<void(const std::string& path)> onLaunch;

 private:
  Journal* journal_;
};

}  // namespace tarry::platform::sim
