#include "cli/apps_command.h"

#include "settings/app_rules.h"

#include <algorithm>
#include <sstream>

namespace tarry::cli {
namespace {

bool isIn(const std::vector<std::string>& ids, const std::string& id) {
  return std::find(ids.begin(), ids.end(), id) != ids.end();
}

std::string padded(std::string text, std::size_t width) {
  if (text.size() < width) text.append(width - text.size(), ' ');
  return text;
}

}  // namespace

std::string ruleText(const platform::RunningApp& app, const settings::Preferences& prefs,
                     const platform::Workspace& workspace) {
  // NOTE: the same order of decisions as the guard on a Ctrl+Q press.
  if (isIn(workspace.identifierEquivalents(platform::IdentifierSet::dock), app.bundleID)) {
    return "swallowed (desktop shell)";
  }
  if (isIn(workspace.identifierEquivalents(platform::IdentifierSet::neverTerminate), app.bundleID)) {
    return "never (always protected)";
  }
  const std::string rule = prefs.appMode(app.bundleID);
  if (rule.empty()) return prefs.onlyListedApps() ? "not guarded (only listed apps)" : "hold (default)";
  for (const settings::Choice& choice : settings::ruleChoices()) {
    if (choice.raw == rule) return rule + " (" + choice.title + ")";
  }
  return rule + " (unknown rule: normal hold)";
}

std::string appsTable(std::vector<platform::RunningApp> apps, const settings::Preferences& prefs,
                      const platform::Workspace& workspace) {
  std::stable_sort(apps.begin(), apps.end(),
                   [](const platform::RunningApp& a, const platform::RunningApp& b) {
                     if (a.regular != b.regular) return a.regular;
                     return a.localizedName < b.localizedName;
                   });
  std::size_t idWidth = 2;
  std::size_t nameWidth = 4;
  for (const auto& app : apps) {
    idWidth = std::max(idWidth, app.bundleID.size());
    nameWidth = std::max(nameWidth, app.localizedName.size());
  }
  std::ostringstream out;
  out << padded("ID", idWidth) << "  " << padded("NAME", nameWidth) << "  RULE FOR CTRL+Q\n";
  for (const auto& app : apps) {
    out << padded(app.bundleID, idWidth) << "  " << padded(app.localizedName, nameWidth) << "  "
        << ruleText(app, prefs, workspace) << '\n';
  }
  if (apps.empty()) out << "(no app has a window on this display)\n";
  out << "Rules live in appModes, an object of ID -> hold, short, long, instant or never; writing it\n"
         "replaces them all: tarry defaults read appModes, then tarry defaults write appModes '{...}'\n";
  return out.str();
}

}  // namespace tarry::cli
