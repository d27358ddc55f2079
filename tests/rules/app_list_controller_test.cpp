#include "settings/app_list_controller.h"

#include "platform/sim/memory_defaults_store.h"
#include "platform/sim/sim_desktop_entries.h"
#include "platform/sim/sim_workspace.h"
#include "settings/app_rules.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace tarry::settings {
namespace {

using platform::AppListRow;
using platform::Value;

/// Records what the presenter tells the window and answers the file panel as told.
class FakeView final : public platform::AppListView {
 public:
  void setActions(platform::AppListActions* a) override { actions = a; }
  void setTexts(const platform::AppListTexts& t) override { texts = t; }
  void setProtectIndex(int index) override { protectIndex = index; }
  void setRows(const std::vector<AppListRow>& r) override {
    rows = r;
    ++rowBuilds;
  }
  void present() override { ++presented; }
  std::optional<std::string> chooseApplicationFile(const platform::ApplicationFileRequest& request) override {
    requests.push_back(request);
    return fileAnswer;
  }

  [[nodiscard]] const AppListRow* row(const std::string& bundleID) const {
    for (const AppListRow& r : rows) {
      if (r.bundleID == bundleID) return &r;
    }
    return nullptr;
  }

  platform::AppListActions* actions = nullptr;
  platform::AppListTexts texts;
  int protectIndex = -1;
  std::vector<AppListRow> rows;
  int rowBuilds = 0;
  int presented = 0;
  std::vector<platform::ApplicationFileRequest> requests;
  std::optional<std::string> fileAnswer;
};

platform::RunningApp running(std::string id, std::string name, std::int32_t pid, bool regular = true) {
  return {std::move(id), std::move(name), platform::Icon{"running-" + std::to_string(pid), 0, 0, nullptr}, pid, "",
          regular};
}

class AppListControllerTest : public ::testing::Test {
 protected:
  void SetUp() override { workspace.setOwnPid(1); }

  AppListController& open(bool withExtras = true) {
    auto owned = std::make_unique<FakeView>();
    view = owned.get();
    controller = std::make_unique<AppListController>(
        std::move(owned), workspace, entries, [this] { return rules.rules(); },
        [this](const AppListController::Rules& r) { rules.setRules(r); },
        withExtras ? std::optional<Extras>(rules.extras()) : std::nullopt);
    controller->show();
    return *controller;
  }

  [[nodiscard]] std::optional<Value> stored(const char* key) const { return store.get(key); }

  platform::sim::MemoryDefaultsStore store;
  Preferences preferences{store};
  int reschedules = 0;
  AppRules rules{preferences, [this] { ++reschedules; }};
  platform::sim::SimWorkspace workspace;
  platform::sim::SimDesktopEntries entries;
  FakeView* view = nullptr;
  std::unique_ptr<AppListController> controller;
};

// The window's title and subtitle are checked on the Qt window (QtAppListWindowTest).
TEST_F(AppListControllerTest, PopUpItemsInTheOrderTheirIndexesAreStoredIn) {
  open();
  EXPECT_EQ(view->actions, controller.get());
  EXPECT_EQ(view->texts.protectItems, (std::vector<std::string>{"All apps", "Only apps in this list"}));
  EXPECT_EQ(view->texts.ruleTitles, (std::vector<std::string>{"Normal protection", "Shorter hold", "Longer hold",
                                                              "Quit instantly", "Never quit"}));
  EXPECT_EQ(view->texts.idleTitles,
            (std::vector<std::string>{"Default", "Never close", "30 min", "1 h", "2 h", "4 h", "8 h"}));
  EXPECT_EQ(view->presented, 1);

  // Without extras the window offers neither the protect switch nor idle limits.
  open(false);
  EXPECT_TRUE(view->texts.protectItems.empty());
  EXPECT_TRUE(view->texts.idleTitles.empty());
  EXPECT_EQ(view->texts.ruleTitles.size(), 5U);
}

TEST_F(AppListControllerTest, NormalProtectionRemovesTheEntryUnlessOnlyListedAppsAreProtected) {
  preferences.setAppModes({{"org.example.Mail", "never"}, {"org.example.Web", "long"}});
  open();
  controller->pick("org.example.Mail", 0);
  EXPECT_EQ(preferences.appModes(), (AppListController::Rules{{"org.example.Web", "long"}}));

  preferences.setOnlyListedApps(true);
  controller->pick("org.example.Web", 0);
  EXPECT_EQ(preferences.appModes(), (AppListController::Rules{{"org.example.Web", "hold"}}));
  // No selection counts as the first item.
  controller->pick("org.example.Mail", -1);
  EXPECT_EQ(preferences.appMode("org.example.Mail"), "hold");

  controller->pick("org.example.Mail", 3);
  EXPECT_EQ(preferences.appMode("org.example.Mail"), "instant");
  // The presenter's rows follow the pop-up without redrawing it.
  for (const AppListRow& row : controller->rows()) {
    if (row.bundleID == "org.example.Mail") {
      EXPECT_EQ(row.ruleIndex, 3);
    }
  }
  controller->pick("org.example.Mail", 5);  // beyond the table: ignored
  EXPECT_EQ(preferences.appMode("org.example.Mail"), "instant");
}

TEST_F(AppListControllerTest, IdleLimitsAreStoredWholeAndRescheduleTheRamSaver) {
  preferences.setRamSaverApp({{"org.example.Web", 2}});
  open();
  controller->pickIdle("org.example.Mail", 1);
  ASSERT_TRUE(stored("ramSaverApp"));
  // The marker for "never close" must be the exact value −1.
  EXPECT_EQ(*stored("ramSaverApp"), (Value{{"org.example.Mail", -1.0}, {"org.example.Web", 2.0}}));
  EXPECT_EQ(reschedules, 1);

  controller->pickIdle("org.example.Web", 0);
  EXPECT_EQ(*stored("ramSaverApp"), (Value{{"org.example.Mail", -1.0}}));
  controller->pickIdle("org.example.Mail", 2);
  EXPECT_EQ(preferences.ramSaverApp(), (std::map<std::string, double>{{"org.example.Mail", 0.5}}));
  EXPECT_EQ(reschedules, 3);
}

TEST_F(AppListControllerTest, ProtectSwitchStoresAndRebuildsTheList) {
  open();
  const int builds = view->rowBuilds;
  workspace.addApp(running("org.example.Late", "Late", 30));
  controller->protectChanged(1);
  EXPECT_EQ(stored("onlyListedApps"), Value(true));
  EXPECT_EQ(view->protectIndex, 1);
  EXPECT_EQ(view->rowBuilds, builds + 1);
  EXPECT_NE(view->row("org.example.Late"), nullptr);
  controller->protectChanged(0);
  EXPECT_EQ(stored("onlyListedApps"), Value(false));
  EXPECT_EQ(view->protectIndex, 0);
}

TEST_F(AppListControllerTest, AddingAnAppFromItsDesktopFile) {
  entries.addFile({"org.example.Notes", "/opt/notes/org.example.Notes.desktop", "Notes", "notes", "notes %U", "",
                   false, false, {}});
  entries.addFile({"org.example.Gone", "/tmp/gone.desktop", "Gone", "", "gone", "", false, true, {}});
  open();

  // Cancelled, not an application entry, or deleted (Hidden): nothing is added.
  controller->addApp();
  view->fileAnswer = "/tmp/readme.txt";
  controller->addApp();
  view->fileAnswer = "/tmp/gone.desktop";
  controller->addApp();
  EXPECT_FALSE(stored("appModes"));
  ASSERT_EQ(view->requests.size(), 3U);
  EXPECT_EQ(view->requests[0].directory, "/usr/share/applications");
  EXPECT_EQ(view->requests[0].pattern, "*.desktop");
  EXPECT_EQ(view->requests[0].prompt, "Add");

  // While every app is protected, an added app is one that must never be quit.
  view->fileAnswer = "/opt/notes/org.example.Notes.desktop";
  controller->addApp();
  EXPECT_EQ(preferences.appModes(), (AppListController::Rules{{"org.example.Notes", "never"}}));
  const AppListRow* row = view->row("org.example.Notes");
  ASSERT_NE(row, nullptr);
  EXPECT_EQ(view->texts.ruleTitles[static_cast<std::size_t>(row->ruleIndex)], "Never quit");
  EXPECT_EQ(row->name, "Notes");  // from the file, though it is not installed
  EXPECT_EQ(row->icon.name, "notes");

  // While only listed apps are protected, adding one protects it normally.
  controller->protectChanged(1);
  controller->addApp();
  EXPECT_EQ(preferences.appMode("org.example.Notes"), "hold");
  EXPECT_EQ(view->row("org.example.Notes")->ruleIndex, 0);
}

TEST_F(AppListControllerTest, ListsRuledIdleAndRunningAppsOnceSortedByName) {
  store.set("appModes", Value{{"org.example.Zeta", "long"}, {"bad.number", 5}, {"org.example.Odd", "sometimes"}});
  store.set("ramSaverApp", Value{{"org.example.alpha", 3}, {"bad.string", "2"}, {"bad.range", 30}});
  entries.install({"org.example.Zeta", "/usr/share/applications/org.example.Zeta.desktop", "zeta Viewer",
                   "zeta-icon", "zeta", "", false, false, {}});
  workspace.addApp(running("org.example.Beta", "Beta", 10));
  workspace.addApp(running("org.example.Beta", "Beta", 11));  // a second instance
  workspace.addApp(running("org.example.Daemon", "Daemon", 12, false));
  workspace.addApp(running("", "Nameless", 13));
  workspace.addApp(running("org.example.Tarry", "Tarry", 1));  // this program's own window
  open();

  std::vector<std::string> order;
  for (const AppListRow& row : view->rows) order.push_back(row.bundleID);
  // Names: "Beta", "org.example.alpha", "org.example.Odd", "zeta Viewer" — ASCII case ignored.
  EXPECT_EQ(order, (std::vector<std::string>{"org.example.Beta", "org.example.alpha", "org.example.Odd",
                                             "org.example.Zeta"}));

  const AppListRow* beta = view->row("org.example.Beta");
  EXPECT_EQ(beta->icon.name, "running-10");
  EXPECT_EQ(beta->ruleIndex, 0);
  EXPECT_EQ(beta->idleIndex, 0);
  const AppListRow* zeta = view->row("org.example.Zeta");
  EXPECT_EQ(zeta->name, "zeta Viewer");
  EXPECT_EQ(zeta->icon.name, "zeta-icon");
  EXPECT_EQ(zeta->ruleIndex, 2);
  // A rule word the table does not know guards like the default and shows as it.
  EXPECT_EQ(view->row("org.example.Odd")->ruleIndex, 0);
  // Neither running nor installed: the identifier is the name, with the generic icon.
  const AppListRow* alpha = view->row("org.example.alpha");
  EXPECT_EQ(alpha->name, "org.example.alpha");
  EXPECT_EQ(alpha->icon.name, "app.fill");
  // A limit the table does not offer is shown as it is, after the table's items.
  EXPECT_EQ(alpha->idleIndex, 7);
  EXPECT_EQ(alpha->idleExtraTitle, "3 h");
  controller->pickIdle("org.example.alpha", 7);
  EXPECT_EQ(preferences.ramSaverApp().at("org.example.alpha"), 3.0);
  EXPECT_EQ(reschedules, 0);
}

}  // namespace
}  // namespace tarry::settings
