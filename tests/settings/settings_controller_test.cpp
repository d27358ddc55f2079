#include "settings/settings_controller.h"

#include "platform/sim/memory_defaults_store.h"
#include "platform/sim/sim_alerts.h"
#include "platform/sim/sim_services.h"
#include "settings/settings_snapshot.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tarry::settings {
namespace {

using platform::AppearanceMode;
using platform::Value;
using Lines = std::vector<std::string>;

class SettingsControllerTest : public ::testing::Test {
 protected:
  platform::sim::MemoryDefaultsStore store;
  Preferences prefs{store};
  platform::sim::SimLoginItems loginItems;
  platform::sim::SimAppearance appearance;
  platform::sim::SimAlerts alerts;
  Lines trace;
  SettingsController controller{
      store, loginItems, appearance, alerts,
      SettingsHooks{
          [this](const std::string& line) { trace.push_back("log " + line); },
          [this](const std::string& line) { trace.push_back("syslog " + line); },
          [this](const std::string& event) { trace.push_back("event " + event); },
          [this] { trace.push_back("ramSaver " + store.get("ramSaverHours").value_or(Value()).dump()); },
          [this] { trace.push_back("refresh"); }, [this] { trace.push_back("change"); }}};
};

TEST_F(SettingsControllerTest, ChangedStoresEveryControlThenNotifiesInOrder) {
  SettingsControls c = controller.controls();
  c.enabled = false;
  c.styleIndex = 1;
  c.workFromIndex = -3;
  c.workToIndex = 18;
  c.ramSaverIndex = 9;  // beyond the list: the last entry
  c.closeHoldIndex = 2;
  c.logoutHoldIndex = 3;
  c.autoUpdate = false;
  controller.changed(c);

  EXPECT_FALSE(prefs.enabled());
  EXPECT_TRUE(prefs.pressTwice());
  EXPECT_EQ(prefs.workFrom(), 0);
  EXPECT_EQ(prefs.workTo(), 18);
  EXPECT_EQ(prefs.ramSaverHours(), 8);
  EXPECT_EQ(prefs.closeHold(), 2);
  EXPECT_EQ(prefs.logoutHold(), 5);
  EXPECT_FALSE(prefs.autoUpdate());
  // RAM Saver is asked once its new threshold is stored; the window refreshes before the menu.
  EXPECT_EQ(trace,
            (Lines{"log settings changed", "event settingsChanged", "ramSaver 8.0", "refresh", "change"}));
  c.workFromIndex = 0;
  c.ramSaverIndex = 5;
  EXPECT_EQ(controller.controls(), c);  // what the refreshed window shows

  controller.holdSliderMoved(3.26, c);
  EXPECT_EQ(store.get("holdSeconds"), Value(3.5));
  controller.holdSliderMoved(9, c);
  EXPECT_EQ(prefs.holdSeconds(), 7);
}

TEST_F(SettingsControllerTest, AppearanceIsAppliedOnlyWhenTheChoiceChanges) {
  SettingsControls c = controller.controls();
  controller.changed(c);
  EXPECT_FALSE(appearance.applied.has_value());
  c.appearanceIndex = 1;
  controller.changed(c);
  EXPECT_EQ(appearance.applied, AppearanceMode::dark);

  // A stored 5 reads as 2 ("Match system"): picking that entry changes nothing, applying follows
  // the system.
  store.set("appearance", 5);
  appearance.applied.reset();
  c.appearanceIndex = 2;
  controller.changed(c);
  EXPECT_FALSE(appearance.applied.has_value());
  applyAppearance(prefs, appearance);
  EXPECT_EQ(appearance.applied, AppearanceMode::system);
  store.set("appearance", -1);
  applyAppearance(prefs, appearance);
  EXPECT_EQ(appearance.applied, AppearanceMode::light);
}

TEST_F(SettingsControllerTest, LoginCheckboxActsOnlyWhenItDiffersAndReportsFailures) {
  SettingsControls c = controller.controls();
  controller.changed(c);
  EXPECT_EQ(loginItems.registerCalls + loginItems.unregisterCalls, 0);
  EXPECT_FALSE(store.get("loginDefaultDone").has_value());

  c.launchAtLogin = true;
  controller.changed(c);
  EXPECT_TRUE(loginItems.on);
  EXPECT_TRUE(prefs.loginDefaultDone());

  trace.clear();
  loginItems.failWith = "permission denied";
  c.launchAtLogin = false;
  controller.changed(c);
  EXPECT_EQ(trace, (Lines{"log settings changed", "event settingsChanged", "ramSaver 0.0",
                          "syslog login item error: permission denied",
                          "log login item error: permission denied", "refresh", "change"}));
  EXPECT_TRUE(controller.controls().launchAtLogin);  // the real state, not the checkbox's wish
}

TEST_F(SettingsControllerTest, ResetAsksThenRemovesOnlyTheSettings) {
  const Lines settingsKeys = {"busyGuard",   "undoQuit",    "ramSaverHours", "onlyListedApps", "showMenuBar",
                              "enabled",     "holdSeconds", "showHUD",       "playSound",      "style",
                              "pauseUntil",  "menuCounter", "appearance",    "closeHold",      "logoutHold",
                              "unsavedWarn", "workHours",   "workFrom",      "workTo",         "workWeekdays",
                              "micStrict",   "autoUpdate"};
  const Lines kept = {"all.quits",      "appModes",    "day.20240101.quits",
                      "lastAnnounceId", "ramSaverApp", "stats.blocked"};
  for (const auto& key : settingsKeys) store.set(key, 1);
  for (const auto& key : kept) store.set(key, Value::object());

  alerts.answers = {0, -1};
  EXPECT_FALSE(controller.resetToDefaults());
  EXPECT_FALSE(controller.resetToDefaults());
  EXPECT_EQ(store.keys("").size(), settingsKeys.size() + kept.size());
  ASSERT_EQ(alerts.shown.size(), 2u);
  EXPECT_EQ(alerts.shown[0].message, "Reset all settings to defaults?");
  EXPECT_EQ(alerts.shown[0].informativeText, "Statistics and app rules are kept.");
  EXPECT_EQ(alerts.shown[0].buttons, (Lines{"No", "Yes, Reset"}));

  loginItems.failWith = "no autostart directory";  // ignored silently
  alerts.answers = {1};
  EXPECT_TRUE(controller.resetToDefaults());
  EXPECT_EQ(store.keys(""), kept);
  EXPECT_EQ(loginItems.registerCalls, 1);
  EXPECT_EQ(appearance.applied, AppearanceMode::light);
  EXPECT_EQ(trace, (Lines{"event reset", "refresh", "change"}));
}

TEST_F(SettingsControllerTest, LoginDefaultAtLaunchIsRetriedUntilItWorksThenNeverAgain) {
  loginItems.failWith = "read-only file system";
  EXPECT_FALSE(applyLoginItemDefault(prefs, loginItems));
  EXPECT_FALSE(prefs.loginDefaultDone());
  loginItems.failWith.clear();
  EXPECT_TRUE(applyLoginItemDefault(prefs, loginItems));
  EXPECT_TRUE(prefs.loginDefaultDone());
  loginItems.on = false;  // the user's later choice
  EXPECT_FALSE(applyLoginItemDefault(prefs, loginItems));
  EXPECT_FALSE(loginItems.on);
}

TEST_F(SettingsControllerTest, SnapshotReportsEffectiveValuesUnderReportNames) {
  store.set("holdSeconds", 9.0);
  store.set("style", 3);
  store.set("appearance", -2);
  store.set("showHUD", false);
  store.set("workHours", true);
  store.set("ramSaverHours", 3);
  store.set("appModes", Value{{"org.a", "never"}, {"org.b", "short"}, {"org.c", 1}});
  loginItems.on = true;
  const Value expected = {
      {"enabled", true},       {"holdSeconds", 7.0},  {"style", 1},           {"progressBar", false},
      {"sound", true},         {"menuBar", true},     {"menuCounter", true},  {"appearance", 0},
      {"unsavedWarn", true},   {"carefulMode", true}, {"micStrict", false},   {"onlyListedApps", false},
      {"closeHold", 0.0},      {"logoutHold", 2.0},   {"appRules", 2},        {"launchAtLogin", true},
      {"accessibility", true}, {"autoUpdate", true},  {"loginLaunch", false}, {"updatedFrom", "0.0.9"},
      {"undoQuit", true},      {"busyGuard", true},   {"ramSaverHours", 0.0}};
  EXPECT_EQ(settingsSnapshot(prefs, loginItems, SnapshotFacts{true, false, "0.0.9"}), expected);
}

}  // namespace
}  // namespace tarry::settings
