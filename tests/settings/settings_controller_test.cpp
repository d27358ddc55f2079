#include "settings/settings_controller.h"

#include "platform/sim/memory_defaults_store.h"
#include "platform/sim/sim_alerts.h"
#include "platform/sim/sim_services.h"
#include "settings/choice_lists.h"
#include "settings/settings_snapshot.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tarry::settings {
namespace {

using platform::AppearanceMode;
using platform::Value;

/// Remembers the keys removed, in order.
class RecordingStore final : public platform::DefaultsStore {
 public:
  [[nodiscard]] std::optional<Value> get(std::string_view key) const override { return inner.get(key); }
  void set(std::string_view key, Value value) override { inner.set(key, std::move(value)); }
  void remove(std::string_view key) override {
    removed.emplace_back(key);
    inner.remove(key);
  }
  [[nodiscard]] std::vector<std::string> keys(std::string_view prefix) const override {
    return inner.keys(prefix);
  }
  std::int64_t addInteger(std::string_view key, std::int64_t amount) override {
    return inner.addInteger(key, amount);
  }
  void flush() override {}

  platform::sim::MemoryDefaultsStore inner;
  std::vector<std::string> removed;
};

class SettingsControllerTest : public ::testing::Test {
 protected:
  SettingsHooks hooks() {
    return SettingsHooks{
        [this](const std::string& line) { trace.push_back("log " + line); },
        [this](const std::string& line) { trace.push_back("syslog " + line); },
        [this](const std::string& event) { trace.push_back("event " + event); },
        [this] { trace.push_back("ramSaver " + store.get("ramSaverHours").value_or(Value()).dump()); },
        [this] { trace.push_back("refresh"); },
        [this] { trace.push_back("change"); },
    };
  }

  RecordingStore store;
  Preferences prefs{store};
  platform::sim::SimLoginItems loginItems;
  platform::sim::SimAppearance appearance;
  platform::sim::SimAlerts alerts;
  std::vector<std::string> trace;
  SettingsController controller{store, loginItems, appearance, alerts, hooks()};
};

TEST_F(SettingsControllerTest, ChangedStoresEveryControlInOrderAndNotifies) {
  SettingsControls c = controller.controls();
  c.enabled = false;
  c.showHUD = false;
  c.styleIndex = 1;
  c.workHours = true;
  c.workFromIndex = -3;
  c.workToIndex = 18;
  c.ramSaverIndex = 9;  // beyond the list: the last entry
  c.closeHoldIndex = 2;
  c.logoutHoldIndex = 3;
  c.autoUpdate = false;
  controller.changed(c);

  EXPECT_FALSE(prefs.enabled());
  EXPECT_FALSE(prefs.showHUD());
  EXPECT_TRUE(prefs.pressTwice());
  EXPECT_TRUE(prefs.workHours());
  EXPECT_EQ(prefs.workFrom(), 0);
  EXPECT_EQ(prefs.workTo(), 18);
  EXPECT_EQ(prefs.ramSaverHours(), 8);
  EXPECT_EQ(prefs.closeHold(), 2);
  EXPECT_EQ(prefs.logoutHold(), 5);
  EXPECT_FALSE(prefs.autoUpdate());
  // RAM Saver is asked only once its new threshold is stored; the window refreshes before the
  // menu follows.
  EXPECT_EQ(trace, (std::vector<std::string>{"log settings changed", "event settingsChanged", "ramSaver 8.0",
                                             "refresh", "change"}));

  // What the window shows after the refresh is what was committed.
  c.workFromIndex = 0;
  c.ramSaverIndex = 5;
  EXPECT_EQ(controller.controls(), c);

  c.ramSaverIndex = -2;
  controller.changed(c);
  EXPECT_EQ(prefs.ramSaverHours(), 0);
}

TEST_F(SettingsControllerTest, AppearanceIsAppliedOnlyWhenTheChoiceChanges) {
  SettingsControls c = controller.controls();
  controller.changed(c);
  EXPECT_FALSE(appearance.applied.has_value());

  c.appearanceIndex = 1;
  controller.changed(c);
  EXPECT_EQ(appearance.applied, AppearanceMode::dark);
  EXPECT_EQ(store.get("appearance"), Value(1));

  // A stored 5 reads as 2 ("Match system"), so picking that entry changes nothing.
  store.set("appearance", 5);
  appearance.applied.reset();
  c.appearanceIndex = 2;
  controller.changed(c);
  EXPECT_FALSE(appearance.applied.has_value());
  EXPECT_EQ(store.get("appearance"), Value(5));
}

TEST_F(SettingsControllerTest, ApplyAppearanceMapsStoredValues) {
  const struct {
    Value stored;
    AppearanceMode mode;
  } cases[] = {{-1, AppearanceMode::light}, {0, AppearanceMode::light},  {1, AppearanceMode::dark},
               {2, AppearanceMode::system}, {5, AppearanceMode::system}, {"dark", AppearanceMode::light}};
  for (const auto& c : cases) {
    store.set("appearance", c.stored);
    applyAppearance(prefs, appearance);
    EXPECT_EQ(appearance.applied, c.mode) << c.stored.dump();
  }
}

TEST_F(SettingsControllerTest, LoginCheckboxRegistersOnlyWhenItDiffersAndReportsFailures) {
  SettingsControls c = controller.controls();
  ASSERT_FALSE(c.launchAtLogin);
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
  EXPECT_EQ(loginItems.unregisterCalls, 1);
  EXPECT_EQ(trace,
            (std::vector<std::string>{"log settings changed", "event settingsChanged", "ramSaver 0.0",
                                      "syslog login item error: permission denied",
                                      "log login item error: permission denied", "refresh", "change"}));
  EXPECT_TRUE(controller.controls().launchAtLogin);  // the real state, not the checkbox's wish
}

TEST_F(SettingsControllerTest, HoldSliderStoresHalfSecondsWithinRange) {
  const SettingsControls c = controller.controls();
  controller.holdSliderMoved(3.26, c);
  EXPECT_EQ(store.get("holdSeconds"), Value(3.5));
  EXPECT_EQ(trace.front(), "log settings changed");
  controller.holdSliderMoved(9, c);
  EXPECT_EQ(store.get("holdSeconds"), Value(7.0));
  controller.holdSliderMoved(0.1, c);
  EXPECT_EQ(store.get("holdSeconds"), Value(0.5));
}

TEST_F(SettingsControllerTest, ResetAsksThenRemovesOnlyTheSettings) {
  const std::vector<std::string> settingsKeys = {
      "busyGuard",   "undoQuit",     "ramSaverHours", "onlyListedApps", "showMenuBar", "enabled",
      "holdSeconds", "showHUD",      "playSound",     "style",          "pauseUntil",  "menuCounter",
      "appearance",  "closeHold",    "logoutHold",    "unsavedWarn",    "workHours",   "workFrom",
      "workTo",      "workWeekdays", "micStrict",     "autoUpdate"};
  for (const auto& key : settingsKeys) store.set(key, 1);
  const std::vector<std::string> keptKeys = {"appModes",      "ramSaverApp",        "stats.blocked",
                                             "all.quits",     "day.20240101.quits", "loginDefaultDone",
                                             "lastAnnounceId"};
  for (const auto& key : keptKeys) store.set(key, Value::object());

  alerts.answers = {0, -1};
  EXPECT_FALSE(controller.resetToDefaults());
  EXPECT_FALSE(controller.resetToDefaults());
  EXPECT_TRUE(store.removed.empty());
  EXPECT_TRUE(trace.empty());
  ASSERT_EQ(alerts.shown.size(), 2u);
  EXPECT_EQ(alerts.shown[0].message, "Reset all settings to defaults?");
  EXPECT_EQ(alerts.shown[0].informativeText, "Statistics and app rules are kept.");
  EXPECT_EQ(alerts.shown[0].buttons, (std::vector<std::string>{"No", "Yes, Reset"}));

  loginItems.failWith = "no autostart directory";  // ignored silently
  alerts.answers = {1};
  EXPECT_TRUE(controller.resetToDefaults());
  EXPECT_EQ(store.removed, settingsKeys);
  EXPECT_EQ(store.keys(""),
            (std::vector<std::string>{"all.quits", "appModes", "day.20240101.quits", "lastAnnounceId",
                                      "loginDefaultDone", "ramSaverApp", "stats.blocked"}));
  EXPECT_EQ(loginItems.registerCalls, 1);
  EXPECT_EQ(appearance.applied, AppearanceMode::light);
  EXPECT_EQ(trace, (std::vector<std::string>{"event reset", "refresh", "change"}));
  EXPECT_EQ(prefs.pauseUntil(), 0);
}

TEST_F(SettingsControllerTest, LoginDefaultAtLaunchIsRetriedUntilItWorks) {
  loginItems.failWith = "read-only file system";
  EXPECT_FALSE(applyLoginItemDefault(prefs, loginItems));
  EXPECT_FALSE(prefs.loginDefaultDone());

  loginItems.failWith.clear();
  EXPECT_TRUE(applyLoginItemDefault(prefs, loginItems));
  EXPECT_TRUE(prefs.loginDefaultDone());
  EXPECT_TRUE(loginItems.on);

  // The user's later choice is never overridden.
  loginItems.on = false;
  EXPECT_FALSE(applyLoginItemDefault(prefs, loginItems));
  EXPECT_EQ(loginItems.registerCalls, 2);
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

  const auto s = settingsSnapshot(prefs, loginItems, SnapshotFacts{true, false, "0.0.9"});
  const Value expected = {
      {"enabled", true},       {"holdSeconds", 7.0},  {"style", 1},           {"progressBar", false},
      {"sound", true},         {"menuBar", true},     {"menuCounter", true},  {"appearance", 0},
      {"unsavedWarn", true},   {"carefulMode", true}, {"micStrict", false},   {"onlyListedApps", false},
      {"closeHold", 0.0},      {"logoutHold", 2.0},   {"appRules", 2},        {"launchAtLogin", true},
      {"accessibility", true}, {"autoUpdate", true},  {"loginLaunch", false}, {"updatedFrom", "0.0.9"},
      {"undoQuit", true},      {"busyGuard", true},   {"ramSaverHours", 0.0}};
  EXPECT_EQ(s, expected) << s.dump();
}

TEST(ChoiceListsTest, HourTitlesAndOutOfRangeIndices) {
  EXPECT_EQ(hourTitle(0), "00:00");
  EXPECT_EQ(hourTitle(9), "09:00");
  EXPECT_EQ(hourTitle(23), "23:00");
  EXPECT_EQ(choiceValue(kLogoutHoldChoices, -1), 0);
  EXPECT_EQ(choiceIndex(kRamSaverChoices, 0.5), 1);
  EXPECT_EQ(choiceIndex(kCloseHoldChoices, 7), 0);
}

}  // namespace
}  // namespace tarry::settings
