#include "platform/linux/app_lookup.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <system_error>

namespace tarry::platform::os {

std::string executableOf(std::int32_t pid) {
  if (pid <= 0) return {};
  std::error_code error;
  const std::filesystem::path exe =
      std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/exe", error);
  return error ? std::string() : exe.string();
}

std::optional<DesktopEntry> entryOfNames(DesktopEntries& entries, const std::vector<std::string>& names,
                                         const std::vector<std::string>& lowercased) {
  for (const std::string& name : names) {
    if (name.empty()) continue;
    if (std::optional<DesktopEntry> entry = entries.findById(name)) return entry;
    if (std::optional<DesktopEntry> entry = entries.findByStartupWMClass(name)) return entry;
  }
  for (std::string name : lowercased) {
    if (name.empty()) continue;
    std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
    if (std::optional<DesktopEntry> entry = entries.findById(name)) return entry;
  }
  return std::nullopt;
}

}  // namespace tarry::platform::os
