#include "settings/preferences.h"

#include "platform/sim/memory_defaults_store.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

namespace tarry::settings {
namespace {

using platform::Value;

TEST(PreferencesTest, NumbersReadClampedOrAsTheirDefault) {
  platform::sim::MemoryDefaultsStore store;
  const Preferences p(store);
  const struct {
    const char* key;
    Value stored;  // null = absent
    double reads;
    std::function<double()> read;
  } cases[] = {
      {"holdSeconds", 0.2, 0.5, [&] { return p.holdSeconds(); }},
      {"holdSeconds", 7.3, 7, [&] { return p.holdSeconds(); }},
      {"holdSeconds", 1.26, 1.5, [&] { return p.holdSeconds(); }},
      {"holdSeconds", 1.24, 1, [&] { return p.holdSeconds(); }},
      {"holdSeconds", {}, 2, [&] { return p.holdSeconds(); }},
      {"holdSeconds", "3", 2, [&] { return p.holdSeconds(); }},
      {"ramSaverHours", 3, 0, [&] { return p.ramSaverHours(); }},
      {"ramSaverHours", 0.5, 0.5, [&] { return p.ramSaverHours(); }},
      {"workFrom", 30, 23, [&] { return p.workFrom(); }},
      {"workFrom", -4, 0, [&] { return p.workFrom(); }},
      {"workFrom", {}, 9, [&] { return p.workFrom(); }},
      {"workTo", {}, 17, [&] { return p.workTo(); }},
      {"workTo", "8", 17, [&] { return p.workTo(); }},
      {"appearance", 5, 2, [&] { return p.appearance(); }},
      {"appearance", -1, 0, [&] { return p.appearance(); }},
      {"style", 2, 1, [&] { return p.pressTwice(); }},
      {"style", 0.5, 0, [&] { return p.pressTwice(); }},
      {"logoutHold", {}, 2, [&] { return p.logoutHold(); }},
      {"logoutHold", "5", 2, [&] { return p.logoutHold(); }},
      {"closeHold", {}, 0, [&] { return p.closeHold(); }},
      {"lastAnnounceId", "7", 0, [&] { return p.lastAnnounceId(); }},
  };
  for (const auto& c : cases) {
    if (c.stored.is_null()) {
      store.remove(c.key);
    } else {
      store.set(c.key, c.stored);
    }
    EXPECT_EQ(c.read(), c.reads) << c.key << " = " << c.stored.dump();
  }
}

TEST(PreferencesTest, FlagsOfTheWrongTypeReadAsTheirReadersDefault) {
  platform::sim::MemoryDefaultsStore store;
  const Preferences p(store);
  const auto all = {"enabled",     "showHUD",      "playSound",      "showMenuBar",     "menuCounter",
                    "unsavedWarn", "workWeekdays", "undoQuit",       "busyGuard",       "autoUpdate",
                    "workHours",   "micStrict",    "onlyListedApps", "loginDefaultDone"};
  for (const Value& junk : {Value(), Value(0), Value("false"), Value(1)}) {
    for (const char* key : all) {
      if (!junk.is_null()) store.set(key, junk);
    }
    EXPECT_TRUE(p.enabled() && p.showHUD() && p.playSound() && p.showMenuBar() && p.menuCounter() &&
                p.unsavedWarn() && p.workWeekdays() && p.undoQuit() && p.busyGuard() && p.autoUpdate())
        << junk.dump();
    EXPECT_FALSE(p.workHours() || p.micStrict() || p.onlyListedApps() || p.loginDefaultDone()) << junk.dump();
  }
  store.set("enabled", false);
  store.set("micStrict", true);
  EXPECT_FALSE(p.enabled());
  EXPECT_TRUE(p.micStrict());
}

}  // namespace
}  // namespace tarry::settings
