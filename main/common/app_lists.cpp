#include "common/app_lists.h"

#include "settings/tunables.h"

#include <algorithm>

namespace tarry::common {

std::vector<std::string> commaList(std::string_view text) {
  std::vector<std::string> out;
  const auto isSpace = [](char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
  };
  while (true) {
    const auto comma = text.find(',');
    std::string_view item = text.substr(0, comma);
    while (!item.empty() && isSpace(item.front())) item.remove_prefix(1);
    while (!item.empty() && isSpace(item.back())) item.remove_suffix(1);
    if (!item.empty()) out.emplace_back(item);
    if (comma == std::string_view::npos) break;
    text.remove_prefix(comma + 1);
  }
  return out;
}

bool listed(const std::vector<std::string>& ids, const std::string& id) {
  return std::find(ids.begin(), ids.end(), id) != ids.end();
}

bool isFileManager(platform::Workspace& workspace, const std::string& bundleID) {
  return bundleID == "com.apple.finder" ||
         listed(workspace.identifierEquivalents(platform::IdentifierSet::neverTerminate), bundleID);
}

bool isNeverQuit(platform::Workspace& workspace, const settings::Tunables& tunables,
                 const std::string& bundleID) {
  return isFileManager(workspace, bundleID) ||
         listed(commaList(tunables.text(settings::T::neverQuitExtra)), bundleID);
}

std::string namesText(const std::vector<std::string>& names, std::size_t max) {
  if (names.empty()) return {};
  if (names.size() == 1) return names[0];
  std::string out;
  if (names.size() <= max) {
    for (std::size_t i = 0; i + 1 < names.size(); ++i) out += (i ? ", " : "") + names[i];
    return out + " and " + names.back();
  }
  const std::size_t shown = std::max<std::size_t>(max, 2) - 1;
  for (std::size_t i = 0; i < shown; ++i) out += (i ? ", " : "") + names[i];
  return out + " and " + std::to_string(names.size() - shown) + " more";
}

std::string displayName(const platform::RunningApp& app) {
  if (!app.localizedName.empty()) return app.localizedName;
  return app.bundleID.empty() ? std::string("app") : app.bundleID;
}

}  // namespace tarry::common
