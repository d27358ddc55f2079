#include "settings/app_list_controller.h"

#include "guard/combo.h"

#include <algorithm>

namespace tarry::settings {
namespace {

using platform::AppListRow;

/// Shown for an app whose icon neither the running app nor its desktop entry gives.
constexpr const char* fallbackIcon = "app.fill";

std::string foldedASCII(const std::string& text) {
  std::string folded = text;
  for (char& c : folded) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return folded;
}

}  // namespace

AppListController::AppListController(std::unique_ptr<platform::AppListView> view, platform::Workspace& workspace,
                                     platform::DesktopEntries& desktopEntries, std::function<Rules()> getRules,
                                     std::function<void(const Rules&)> setRules, std::optional<Extras> extras)
    : getRules(std::move(getRules)),
      setRules(std::move(setRules)),
      extras(std::move(extras)),
      view_(std::move(view)),
      workspace_(workspace),
      desktopEntries_(desktopEntries) {
  platform::AppListTexts texts;
  texts.title = "Tarry App Rules";
  texts.subtitle = "Choose how " + std::string(guard::keysText(guard::Shortcut::quit)) + " works for each app.";
  texts.protectLabel = "Protect:";
  if (this->extras) texts.protectItems = {"All apps", "Only apps in this list"};
  for (const Choice& choice : choices) texts.ruleTitles.push_back(choice.title);
  if (this->extras) {
    for (const IdleChoice& choice : idleChoices) texts.idleTitles.push_back(choice.title);
  }
  texts.addTitle = "Add…";
  view_->setTexts(texts);
  view_->setActions(this);
}

AppListController::~AppListController() { view_->setActions(nullptr); }

bool AppListController::onlyListed() const { return extras && extras->onlyListed(); }

void AppListController::show() {
  rebuild();
  view_->present();
}

void AppListController::rebuild() {
  const Rules rules = getRules();
  const std::map<std::string, double> idle = extras ? extras->idle() : std::map<std::string, double>{};

  struct Found {
    std::string name;
    platform::Icon icon;
  };
  std::map<std::string, Found> apps;
  for (const auto& [bundleID, rule] : rules) apps.emplace(bundleID, Found{});
  for (const auto& [bundleID, hours] : idle) apps.emplace(bundleID, Found{});
  const std::int32_t ownPid = workspace_.ownPid();
  for (const platform::RunningApp& app : workspace_.runningApplications()) {
    if (app.bundleID.empty()) continue;
    // NOTE: this program's own window counts as regular while it is open; it is no app to rule
    // over unless the user gave it a rule.
    if (!app.regular || app.pid == ownPid) continue;
    Found& found = apps[app.bundleID];
    if (found.name.empty()) found.name = app.localizedName;
    if (found.icon.empty()) found.icon = app.icon;
  }

  list.clear();
  for (auto& [bundleID, found] : apps) {
    if (found.name.empty() || found.icon.empty()) {
      std::optional<platform::DesktopEntry> entry = desktopEntries_.findById(bundleID);
      if (!entry) {
        if (const auto it = added_.find(bundleID); it != added_.end()) entry = it->second;
      }
      if (entry) {
        if (found.name.empty()) found.name = entry->name;
        if (found.icon.empty() && !entry->icon.empty()) found.icon = platform::Icon{entry->icon, 0, 0, nullptr};
      }
    }
    AppListRow row;
    row.bundleID = bundleID;
    row.name = found.name.empty() ? bundleID : found.name;
    row.icon = found.icon.empty() ? platform::Icon{fallbackIcon, 0, 0, nullptr} : found.icon;
    // An unknown rule word guards like the default, so it shows as the default.
    if (const auto rule = rules.find(bundleID); rule != rules.end()) {
      const auto it = std::find_if(choices.begin(), choices.end(), [&](const Choice& c) { return c.raw == rule->second; });
      if (it != choices.end()) row.ruleIndex = static_cast<int>(it - choices.begin());
    }
    if (const auto hours = idle.find(bundleID); hours != idle.end()) {
      const auto it = std::find_if(idleChoices.begin(), idleChoices.end(),
                                   [&](const IdleChoice& c) { return c.hours == hours->second; });
      if (it != idleChoices.end()) {
        row.idleIndex = static_cast<int>(it - idleChoices.begin());
      } else {
        // A limit written outside the window still applies; show it rather than "Default".
        row.idleIndex = static_cast<int>(idleChoices.size());
        row.idleExtraTitle = idleHoursTitle(hours->second);
      }
    }
    list.push_back(std::move(row));
  }
  std::stable_sort(list.begin(), list.end(), [](const AppListRow& a, const AppListRow& b) {
    const std::string fa = foldedASCII(a.name);
    const std::string fb = foldedASCII(b.name);
    return fa != fb ? fa < fb : a.bundleID < b.bundleID;
  });

  if (extras) view_->setProtectIndex(onlyListed() ? 1 : 0);
  view_->setRows(list);
}

void AppListController::pick(const std::string& bundleID, int index) {
  if (bundleID.empty()) return;
  if (index < 0) index = 0;
  if (static_cast<std::size_t>(index) >= choices.size()) return;
  const std::string& raw = choices[static_cast<std::size_t>(index)].raw;
  Rules rules = getRules();
  // With only listed apps protected, the entry itself is what protects the app, so an explicit
  // "hold" must stay.
  if (raw == defaultRaw && !onlyListed()) {
    rules.erase(bundleID);
  } else {
    rules[bundleID] = raw;
  }
  setRules(rules);
  for (AppListRow& row : list) {
    if (row.bundleID == bundleID) row.ruleIndex = index;
  }
}

void AppListController::pickIdle(const std::string& bundleID, int index) {
  if (!extras || bundleID.empty()) return;
  if (index < 0) index = 0;
  // Beyond the table is the extra item of a limit set elsewhere: choosing it again keeps it.
  if (static_cast<std::size_t>(index) >= idleChoices.size()) return;
  const IdleChoice& choice = idleChoices[static_cast<std::size_t>(index)];
  std::map<std::string, double> idle = extras->idle();
  if (choice.hours) {
    idle[bundleID] = *choice.hours;
  } else {
    idle.erase(bundleID);
  }
  extras->setIdle(idle);
  for (AppListRow& row : list) {
    if (row.bundleID == bundleID) {
      row.idleIndex = index;
      row.idleExtraTitle.clear();
    }
  }
}

void AppListController::protectChanged(int index) {
  if (!extras) return;
  extras->setOnlyListed(index == 1);
  rebuild();
}

void AppListController::addApp() {
  const std::optional<std::string> path =
      view_->chooseApplicationFile({"/usr/share/applications", "*.desktop", "Add"});
  if (!path) return;
  const std::optional<platform::DesktopEntry> entry = desktopEntries_.readFile(*path);
  // A deleted (Hidden) entry or one without an id names no application.
  if (!entry || entry->hidden || entry->id.empty()) return;
  added_[entry->id] = *entry;
  Rules rules = getRules();
  rules[entry->id] = onlyListed() ? defaultRaw : addRaw;
  setRules(rules);
  rebuild();
}

}  // namespace tarry::settings
