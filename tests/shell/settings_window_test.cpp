#include "settings/settings_window.h"

#include "platform/sim/memory_defaults_store.h"
#include "platform/sim/sim_alerts.h"
#include "platform/sim/sim_services.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tarry::settings {
namespace {

using platform::Value;

class RecordingSettingsView final : public platform::SettingsView {
 public:
  void setActions(platform::SettingsActions* a) override { actions = a; }
  void setTexts(const platform::SettingsTexts& t) override { texts = t; }
  void setControls(const platform::SettingsControls& c, const std::string& hold) override {
    controls = c;
    holdText = hold;
    ++refreshes;
  }
  void setGuardStatus(const platform::GuardStatus& s) override { status = s; }
  void present() override { visible = true; }
  [[nodiscard]] bool isVisible() const override { return visible; }

  platform::SettingsActions* actions = nullptr;
  platform::SettingsTexts texts;
  platform::SettingsControls controls;
  std::string holdText;
  platform::GuardStatus status;
  int refreshes = 0;
  bool visible = false;
};

class SettingsWindowTest : public ::testing::Test {
 protected:
  SettingsWindowTest() {
    auto owned = std::make_unique<RecordingSettingsView>();
    view = owned.get();
    SettingsWindowHooks hooks;
    hooks.tapActive = [this] { return tap; };
    hooks.tapProblem = [] { return std::string("Ctrl+Q is taken by another program"); };
    hooks.guardProblem = [this] { return guardProblem; };
    hooks.guardRoute = [this] { return route; };
    hooks.openStats = [this] { trace.push_back("stats"); };
    hooks.log = [this](const std::string& line) { trace.push_back("log " + line); };
    window = std::make_unique<SettingsWindow>(std::move(owned), controller, std::move(hooks));
  }

  platform::sim::MemoryDefaultsStore store;
  platform::sim::SimLoginItems loginItems;
  platform::sim::SimAppearance appearance;
  platform::sim::SimAlerts alerts;
  std::vector<std::string> trace;
  SettingsController controller{store, loginItems, appearance, alerts,
                                SettingsHooks{{}, {}, {}, {}, {}, [this] { trace.push_back("change"); }}};
  RecordingSettingsView* view = nullptr;
  bool tap = true;
  std::string guardProblem;
  std::string route;
  std::unique_ptr<SettingsWindow> window;
};

TEST_F(SettingsWindowTest, EveryPopUpHasItsValueListAndEveryControlALabel) {
  const platform::SettingsTexts& t = view->texts;
  EXPECT_EQ(t.items.at("styleIndex"), (std::vector<std::string>{"Hold Ctrl+Q", "Press Ctrl+Q twice"}));
  EXPECT_EQ(t.items.at("closeHoldIndex"),
            (std::vector<std::string>{"Off", "1 second", "2 seconds", "3 seconds"}));
  EXPECT_EQ(t.items.at("logoutHoldIndex").back(), "5 seconds");
  EXPECT_EQ(t.items.at("ramSaverIndex").size(), 6u);
  EXPECT_EQ(t.items.at("workToIndex").at(17), "17:00");
  EXPECT_EQ(t.items.at("appearanceIndex"), (std::vector<std::string>{"Light", "Dark", "Match system"}));
  for (const char* name : {"enabled", "showMenuBar", "showHUD", "playSound", "menuCounter", "unsavedWarn",
                           "workHours", "workWeekdays", "micStrict", "busyGuard", "undoQuit", "autoUpdate",
                           "launchAtLogin", "holdSeconds", "reset", "rules", "stats", "checkNow"}) {
    EXPECT_FALSE(t.labels.at(name).empty()) << name;
  }
  EXPECT_EQ(t.holdMin, 0.5);
  EXPECT_EQ(t.holdMax, 7.0);
}

TEST_F(SettingsWindowTest, ShowsTheStoreAndCommitsThroughTheControllerPath) {
  store.set("holdSeconds", 2.5);
  store.set("logoutHold", 3.0);
  window->show();
  EXPECT_TRUE(view->visible);
  EXPECT_EQ(view->controls.holdSeconds, 2.5);
  EXPECT_EQ(view->holdText, "2.5 s");
  EXPECT_EQ(view->controls.logoutHoldIndex, 2);
  EXPECT_TRUE(view->status.working);
  EXPECT_TRUE(view->status.help.empty());

  platform::SettingsControls c = view->controls;
  c.enabled = false;
  c.closeHoldIndex = 3;
  c.launchAtLogin = true;
  view->actions->changed(c);
  EXPECT_EQ(store.get("enabled"), Value(false));
  EXPECT_EQ(store.get("closeHold"), Value(3.0));
  EXPECT_TRUE(loginItems.on);
  EXPECT_EQ(trace, (std::vector<std::string>{"change"}));
  EXPECT_FALSE(view->controls.enabled);  // redrawn from the store

  view->actions->holdSliderMoved(6.9, view->controls);
  EXPECT_EQ(store.get("holdSeconds"), Value(7.0));
  EXPECT_EQ(view->holdText, "7 s");

  // Coming back to the window shows what changed meanwhile (the tray menu, `tarry defaults`).
  store.set("enabled", true);
  view->actions->activated();
  EXPECT_TRUE(view->controls.enabled);
}

TEST_F(SettingsWindowTest, ResetAsksAndGuardTroubleIsExplained) {
  store.set("holdSeconds", 5.0);
  store.set("appModes", Value::parse(R"({"org.example.Mail":"never"})"));
  window->show();
  alerts.answers = {0};  // "No"
  view->actions->pressed("reset");
  EXPECT_EQ(store.get("holdSeconds"), Value(5.0));
  alerts.answers = {1};  // "Yes, Reset"
  view->actions->pressed("reset");
  EXPECT_EQ(alerts.shown.back().message, "Reset all settings to defaults?");
  EXPECT_FALSE(store.get("holdSeconds").has_value());
  EXPECT_TRUE(store.get("appModes").has_value());
  EXPECT_EQ(view->controls.holdSeconds, 2.0);

  // Working, it says how it gets the keys where the desktop tells.
  window->refresh();
  EXPECT_EQ(view->status.text, "Keyboard guard on");
  route = "Tarry's GNOME Shell extension";
  window->refresh();
  EXPECT_TRUE(view->status.working);
  EXPECT_EQ(view->status.text, "Keyboard guard on, through Tarry's GNOME Shell extension");

  // Grabs in place, but no window manager says which app is active.
  guardProblem = "no EWMH window manager is running";
  window->refresh();
  EXPECT_FALSE(view->status.working);
  EXPECT_EQ(view->status.text, "Keyboard guard not working: no EWMH window manager is running");
  EXPECT_FALSE(view->status.help.empty());

  tap = false;
  window->refresh();
  EXPECT_FALSE(view->status.working);
  EXPECT_EQ(view->status.text, "Keyboard guard off: Ctrl+Q is taken by another program");
  EXPECT_FALSE(view->status.help.empty());

  view->actions->pressed("stats");
  view->actions->pressed("checkNow");
  EXPECT_EQ(trace.back(), "log settings: checkNow is not available in this build");
  EXPECT_EQ(trace.at(trace.size() - 2), "stats");
}

}  // namespace
}  // namespace tarry::settings
