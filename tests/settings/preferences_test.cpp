#include "settings/preferences.h"

#include "platform/sim/memory_defaults_store.h"

#include <gtest/gtest.h>

#include <string>

namespace tarry::settings {
namespace {

using platform::Value;

class PreferencesTest : public ::testing::Test {
 protected:
  platform::sim::MemoryDefaultsStore store;
  Preferences prefs{store};
};

TEST_F(PreferencesTest, HoldSecondsRoundsToHalvesThenClamps) {
  const struct {
    Value stored;
    double reads;
  } cases[] = {{0.2, 0.5}, {7.3, 7.0}, {1.26, 1.5}, {1.24, 1.0},
               {3, 3.0},   {-5, 0.5},  {"3", 2.0},  {Value::array(), 2.0}};
  for (const auto& c : cases) {
    store.set("holdSeconds", c.stored);
    EXPECT_DOUBLE_EQ(prefs.holdSeconds(), c.reads) << c.stored.dump();
  }
  store.remove("holdSeconds");
  EXPECT_DOUBLE_EQ(prefs.holdSeconds(), 2.0);
}

TEST_F(PreferencesTest, FlagsOfTheWrongTypeReadAsTheirReadersDefault) {
  // Absent and non-Bool values: the default-true flags read true, the default-false ones false.
  for (const Value& junk : {Value(), Value(0), Value("false"), Value(1)}) {
    if (!junk.is_null()) {
      for (const char* key : {"enabled", "showHUD", "playSound", "showMenuBar", "menuCounter", "unsavedWarn",
                              "workWeekdays", "undoQuit", "busyGuard", "autoUpdate", "workHours", "micStrict",
                              "onlyListedApps", "loginDefaultDone"}) {
        store.set(key, junk);
      }
    }
    EXPECT_TRUE(prefs.enabled() && prefs.showHUD() && prefs.playSound() && prefs.showMenuBar() &&
                prefs.menuCounter() && prefs.unsavedWarn() && prefs.workWeekdays() && prefs.undoQuit() &&
                prefs.busyGuard() && prefs.autoUpdate())
        << junk.dump();
    EXPECT_FALSE(prefs.workHours() || prefs.micStrict() || prefs.onlyListedApps() || prefs.loginDefaultDone())
        << junk.dump();
  }
  store.set("enabled", false);
  store.set("micStrict", true);
  EXPECT_FALSE(prefs.enabled());
  EXPECT_TRUE(prefs.micStrict());
  prefs.setOnlyListedApps(true);
  EXPECT_TRUE(prefs.onlyListedApps());
}

TEST_F(PreferencesTest, NumbersOutsideTheirRangeReadClampedOrAsDefault) {
  EXPECT_EQ(prefs.workFrom(), 9);
  EXPECT_EQ(prefs.workTo(), 17);
  store.set("workFrom", 30);
  store.set("workTo", -4);
  EXPECT_EQ(prefs.workFrom(), 23);
  EXPECT_EQ(prefs.workTo(), 0);
  store.set("workFrom", "8");
  EXPECT_EQ(prefs.workFrom(), 9);

  store.set("ramSaverHours", 3);
  EXPECT_EQ(prefs.ramSaverHours(), 0);
  store.set("ramSaverHours", 0.5);
  EXPECT_EQ(prefs.ramSaverHours(), 0.5);
  store.set("ramSaverHours", 8);
  EXPECT_EQ(prefs.ramSaverHours(), 8);

  store.set("appearance", 5);
  EXPECT_EQ(prefs.appearance(), 2);
  store.set("appearance", -1);
  EXPECT_EQ(prefs.appearance(), 0);

  EXPECT_FALSE(prefs.pressTwice());
  store.set("style", 2);
  EXPECT_TRUE(prefs.pressTwice());
  store.set("style", -1);
  EXPECT_FALSE(prefs.pressTwice());

  EXPECT_EQ(prefs.closeHold(), 0);
  EXPECT_EQ(prefs.logoutHold(), 2);
  store.set("logoutHold", "5");
  EXPECT_EQ(prefs.logoutHold(), 2);

  EXPECT_EQ(prefs.lastAnnounceId(), 0);
  store.set("lastAnnounceId", "7");
  EXPECT_EQ(prefs.lastAnnounceId(), 0);
  prefs.setLastAnnounceId(7);
  EXPECT_EQ(prefs.lastAnnounceId(), 7);
}

TEST_F(PreferencesTest, DictionariesDropEntriesTheyCannotUse) {
  store.set("appModes", Value{{"org.a", "never"}, {"org.b", 3}, {"org.c", "short"}});
  EXPECT_EQ(prefs.appModes(), (std::map<std::string, std::string>{{"org.a", "never"}, {"org.c", "short"}}));
  EXPECT_EQ(prefs.appMode("org.b"), "");

  store.set("ramSaverApp", Value{{"org.a", -1}, {"org.b", 30}, {"org.c", 0.5}, {"org.d", "2"}});
  EXPECT_EQ(prefs.ramSaverApp(), (std::map<std::string, double>{{"org.a", -1}, {"org.c", 0.5}}));

  store.set("appModes", "not a dictionary");
  EXPECT_TRUE(prefs.appModes().empty());
}

}  // namespace
}  // namespace tarry::settings
