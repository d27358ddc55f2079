#pragma once

#include "platform/desktop_entries.h"

#include <map>
#include <string>
#include <vector>

namespace tarry::platform::sim {

/// Desktop entries set up by the test: files that can be read by path, and the installed set.
class SimDesktopEntries final : public DesktopEntries {
 public:
  /// A file at `entry.path` that `readFile` returns (its id as given).
  void addFile(const DesktopEntry& entry) { files_[entry.path] = entry; }
  /// An installed application; earlier ones win lookups, as earlier data directories do.
  void install(const DesktopEntry& entry) {
    installed_.push_back(entry);
    addFile(entry);
  }

  [[nodiscard]] std::optional<DesktopEntry> readFile(const std::string& path) override {
    const auto it = files_.find(path);
    if (it == files_.end()) return std::nullopt;
    return it->second;
  }
  [[nodiscard]] std::optional<DesktopEntry> findById(const std::string& id) override {
    for (const DesktopEntry& e : installed_) {
      if (e.id == id) return e.hidden ? std::nullopt : std::optional<DesktopEntry>(e);
    }
    return std::nullopt;
  }
  [[nodiscard]] std::optional<DesktopEntry> findByStartupWMClass(const std::string& wmClass) override {
    for (const DesktopEntry& e : installedApplications()) {
      if (!wmClass.empty() && e.startupWMClass == wmClass) return e;
    }
    return std::nullopt;
  }
  [[nodiscard]] std::vector<DesktopEntry> installedApplications() override {
    std::vector<DesktopEntry> visible;
    for (const DesktopEntry& e : installed_) {
      if (findById(e.id) && findById(e.id)->path == e.path) visible.push_back(e);
    }
    return visible;
  }

 private:
  std::map<std::string, DesktopEntry> files_;
  std::vector<DesktopEntry> installed_;
};

}  // namespace tarry::platform::sim
