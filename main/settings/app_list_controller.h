#pragma once

#include "platform/app_list_view.h"
#include "platform/desktop_entries.h"
#include "platform/workspace.h"
#include "settings/app_rules.h"

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tarry::settings {

/// Presents the App Rules window: one row per app with its Ctrl+Q rule and RAM Saver idle limit, the
/// protect switch, and adding an app by its `.desktop` file. Every change is stored at once.
///
/// Listed apps: those with a rule, those with an idle limit, and the running regular apps other
/// than this program, each once. Name and icon come from the running app, else from its
/// installed desktop entry, else the name is the identifier. Rows are sorted by name ignoring
/// ASCII case (other characters compare by their UTF-8 bytes), then by identifier.
class AppListController final : public platform::AppListActions {
 public:
  using Rules = std::map<std::string, std::string>;

  /// `extras` absent: the window has neither the protect pop-up nor idle pop-ups, and all apps
  /// count as protected.
  AppListController(std::unique_ptr<platform::AppListView> view, platform::Workspace& workspace,
                    platform::DesktopEntries& desktopEntries, std::function<Rules()> getRules,
                    std::function<void(const Rules&)> setRules, std::optional<Extras> extras);
  ~AppListController() override;

  /// Rebuilds the rows from the store and the running apps and brings the window forward.
  void show();
  /// Reads the store and the running apps again and redraws every row and the protect pop-up.
  void rebuild();

  void pick(const std::string& bundleID, int index) override;
  void pickIdle(const std::string& bundleID, int index) override;
  void protectChanged(int index) override;
  void addApp() override;

  /// The rows as last drawn.
  [[nodiscard]] const std::vector<platform::AppListRow>& rows() const { return list; }

  const std::vector<Choice>& choices = ruleChoices();
  const std::string defaultRaw = defaultRule;
  const std::string addRaw = addedRule;
  std::function<Rules()> getRules;
  std::function<void(const Rules&)> setRules;
  std::vector<platform::AppListRow> list;
  std::optional<Extras> extras;
  const std::vector<IdleChoice>& idleChoices = idleChoiceTable();

 private:
  [[nodiscard]] bool onlyListed() const;

  std::unique_ptr<platform::AppListView> view_;
  platform::Workspace& workspace_;
  platform::DesktopEntries& desktopEntries_;
  /// Entries added by hand from files outside the installed set, for their names and icons.
  std::map<std::string, platform::DesktopEntry> added_;
};

}  // namespace tarry::settings
