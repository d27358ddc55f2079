#include "guard/hud.h"

#include "platform/sim/sim_hud_panel.h"
#include "platform/sim/sim_main_loop.h"
#include "platform/sim/sim_screens.h"
#include "settings/tunables.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tarry::guard {
namespace {

using platform::Rect;
using settings::T;

class HudTest : public ::testing::Test {
 protected:
  HudTest() {
    screens.frames = {Rect{0, 0, 1920, 1080}};
    screens.pointer = {100, 100};
  }

  [[nodiscard]] const platform::HudLayout& shown() const { return *panel.layout; }

  platform::sim::SimMainLoop loop;
  platform::sim::SimScreens screens;
  platform::sim::SimHudPanel panel{loop};
  settings::Tunables tunables;
  HUD hud{panel, screens, loop, tunables};
  platform::Icon appIcon{"app.fill", 0, 0, nullptr};
};

struct Reading {
  double elapsed;
  double duration;
  std::string pct;
  platform::Color color;
  std::string time;
};

TEST_F(HudTest, UpdateTruncatesThePercentageCapsAtNinetyNineAndPicksTheColour) {
  hud.show("Hold Ctrl+Q to quit Safari", appIcon, 2.0);
  const std::vector<Reading> readings = {
      {1.2, 2.0, "60%", kSystemYellow, "1.2 s of 2.0 s"},
      {2.5, 2.0, "99%", kSystemRed, "2.0 s of 2.0 s"},
      {0.99, 2.0, "49%", kSystemGreen, "1.0 s of 2.0 s"},  // 0.495 is still green
      {1.5, 2.0, "75%", kSystemRed, "1.5 s of 2.0 s"},     // the yellow threshold itself is red
      {-0.3, 2.0, "0%", kSystemGreen, "0.0 s of 2.0 s"},
      {0.7, 0.0, "0%", kSystemGreen, "0.0 s of 0.0 s"},  // no duration: an empty track
  };
  for (const Reading& r : readings) {
    SCOPED_TRACE(std::to_string(r.elapsed) + " of " + std::to_string(r.duration));
    hud.update(r.elapsed, r.duration);
    EXPECT_EQ(shown().pctLabel.text, r.pct);
    EXPECT_EQ(shown().pctLabel.color, r.color);
    EXPECT_EQ(shown().timeLabel.text, r.time);
    EXPECT_TRUE(shown().bar.visible);
    if (r.pct != "0%") {
      ASSERT_TRUE(shown().bar.fill.has_value());
      EXPECT_EQ(shown().bar.fill->color, r.color);
    } else {
      EXPECT_FALSE(shown().bar.fill.has_value());
    }
  }
  // The fill stops at 99 % of the track, never the whole of it.
  hud.update(9.0, 2.0);
  EXPECT_DOUBLE_EQ(shown().bar.fill->rect.width, 238 * 0.99);
}

TEST_F(HudTest, TheSmallestProgressIsARoundDotNotASliver) {
  MeterBar bar(Rect{76, 44, 238, 10});
  bar.value = 0.01;
  const platform::HudMeter small = bar.drawing(0.14, true);
  ASSERT_TRUE(small.fill.has_value());
  EXPECT_EQ(small.fill->rect, (Rect{0, 0, 10, 10}));
  EXPECT_DOUBLE_EQ(small.fill->radius, 5);
  EXPECT_EQ(small.track, (platform::RoundedRect{Rect{0, 0, 238, 10}, 5, {0, 0, 0, 0.14}}));

  bar.value = 0.5;
  EXPECT_DOUBLE_EQ(bar.drawing(0.14, true).fill->rect.width, 119);
  bar.value = 1.0;
  EXPECT_DOUBLE_EQ(bar.drawing(0.14, true).fill->rect.width, 238);
  bar.value = 0;
  EXPECT_FALSE(bar.drawing(0.14, true).fill.has_value());
}

TEST_F(HudTest, ReasonsReplaceTheTitleOnUpToTwoLines) {
  hud.show("Hold Ctrl+Q to quit Terminal", appIcon, 2.0);
  EXPECT_EQ(shown().label.maxLines, 1);
  EXPECT_EQ(shown().label.lineBreak, platform::LineBreak::truncateTail);

  hud.setReasons({"Unsaved work", "A command is running"});
  EXPECT_EQ(shown().label.text, "⚠️ Unsaved work · A command is running. Keep holding.");
  EXPECT_EQ(shown().label.frame, (Rect{76, 56, 238, 34}));
  EXPECT_EQ(shown().label.font, (platform::Font{12, platform::FontWeight::semibold, false}));
  EXPECT_EQ(shown().label.maxLines, 2);
  EXPECT_EQ(shown().label.lineBreak, platform::LineBreak::wordWrap);

  // The next hold brings the one-line title back.
  hud.show("Hold Ctrl+Q to quit Safari", appIcon, 2.0);
  EXPECT_EQ(shown().label.text, "Hold Ctrl+Q to quit Safari");
  EXPECT_EQ(shown().label.frame, (Rect{76, 62, 238, 20}));
}

TEST_F(HudTest, FlashFadesInToFullOpacityAndHidesAfterItsSecondsAndTheFade) {
  tunables.setNumber(T::hudShowAlpha, 0.5);  // applies to holds only
  hud.flash("Safari is protected", appIcon, 1.6);
  EXPECT_TRUE(panel.visible);
  EXPECT_DOUBLE_EQ(panel.alpha(), 0);
  EXPECT_FALSE(shown().bar.visible);
  EXPECT_FALSE(shown().timeLabel.visible);
  EXPECT_FALSE(shown().pctLabel.visible);
  EXPECT_EQ(shown().label.maxLines, 2);
  EXPECT_EQ(shown().label.frame, (Rect{76, 24, 238, 48}));

  loop.advance(0.125);
  EXPECT_NEAR(panel.alpha(), 0.5, 1e-9);  // half way through the 0.25 s fade-in
  loop.advance(0.125);
  EXPECT_DOUBLE_EQ(panel.alpha(), 1.0);

  loop.advance(1.6 - 0.25 + 0.2);  // 0.2 s into the fade-out
  EXPECT_TRUE(panel.visible);
  EXPECT_TRUE(hud.onScreen());  // the update offer still waits
  EXPECT_LT(panel.alpha(), 1.0);
  EXPECT_EQ(panel.animationTarget(), 0);
  loop.advance(0.1);
  EXPECT_FALSE(panel.visible);
  EXPECT_FALSE(hud.onScreen());
  EXPECT_EQ(panel.outCount, 1);
}

TEST_F(HudTest, ShowDuringAMessageKeepsTheHoldVisible) {
  // Within the message's time: its fade-out must never run.
  hud.flash("Press Ctrl+Q again to quit Safari", appIcon, 1.6);
  loop.advance(0.5);
  hud.show("Hold Ctrl+Q to quit Safari", appIcon, 2.0);
  loop.advance(10);
  EXPECT_TRUE(panel.visible);
  EXPECT_DOUBLE_EQ(panel.alpha(), tunables.real(T::hudShowAlpha));
  EXPECT_EQ(panel.outCount, 0);

  // Already fading out: the hold stops the fade, and the fade's end must not hide the hold.
  hud.hideNow();
  hud.flash("Quit Safari. Ctrl+Alt+Z to undo.", appIcon, 1.0);
  loop.advance(1.1);
  ASSERT_TRUE(panel.animating());
  hud.show("Hold Ctrl+Q to quit Mail", appIcon, 2.0);
  loop.advance(10);
  EXPECT_TRUE(panel.visible);
  EXPECT_DOUBLE_EQ(panel.alpha(), tunables.real(T::hudShowAlpha));
  EXPECT_EQ(panel.outCount, 1);  // the hideNow above, nothing since
}

TEST_F(HudTest, HideNowCancelsThePendingFadeOut) {
  hud.flash("Paused", appIcon, 1.0);
  hud.hideNow();
  EXPECT_FALSE(panel.visible);
  EXPECT_FALSE(hud.onScreen());
  hud.show("Hold Ctrl+Q to quit Safari", appIcon, 2.0);
  loop.advance(5);
  EXPECT_TRUE(panel.visible);
  EXPECT_TRUE(hud.onScreen());
  EXPECT_EQ(panel.outCount, 1);
}

TEST_F(HudTest, OpensOnTheScreenUnderThePointer) {
  tunables.setNumber(T::hudVerticalOffset, 40);
  screens.frames = {Rect{0, 0, 1920, 1080}, Rect{1920, -200, 1280, 1024}};
  screens.pointer = {2500, 300};
  hud.show("Hold Ctrl+Q to quit Safari", appIcon, 2.0);
  ASSERT_TRUE(panel.origin.has_value());
  EXPECT_EQ(*panel.origin, (platform::Point{1920 + 640 - 165, -200 + 512 - 48 + 40}));

  // Pointer off every screen: the main screen.
  screens.main = Rect{0, 0, 1920, 1080};
  screens.pointer = {-50, 5000};
  hud.flash("Paused", appIcon, 1.0);
  EXPECT_EQ(*panel.origin, (platform::Point{960 - 165, 540 - 48 + 40}));

  // No screen at all: brought to the front where it was.
  screens.frames.clear();
  screens.main.reset();
  const int fronts = panel.frontCount;
  hud.show("Hold Ctrl+Q to quit Safari", appIcon, 2.0);
  EXPECT_EQ(*panel.origin, (platform::Point{960 - 165, 540 - 48 + 40}));
  EXPECT_EQ(panel.frontCount, fronts + 1);
}

TEST_F(HudTest, APendingFadeOutDoesNothingOnceTheHudIsGone) {
  platform::sim::SimHudPanel ownPanel{loop};
  {
    HUD shortLived{ownPanel, screens, loop, tunables};
    shortLived.flash("Bye", appIcon, 0.5);
  }
  loop.advance(0.4);
  const int outs = ownPanel.outCount;
  loop.advance(2);
  EXPECT_TRUE(ownPanel.visible);
  EXPECT_EQ(ownPanel.outCount, outs);
}

}  // namespace
}  // namespace tarry::guard
