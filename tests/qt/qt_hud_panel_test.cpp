#include "guard/hud.h"
#include "platform/qt/qt_convert.h"
#include "platform/qt/qt_hud_panel.h"
#include "platform/qt/qt_screens.h"
#include "platform/sim/sim_main_loop.h"
#include "platform/sim/sim_screens.h"
#include "settings/tunables.h"

#include <QCoreApplication>
#include <QCursor>
#include <QElapsedTimer>
#include <QFontMetricsF>
#include <QGuiApplication>
#include <QImage>
#include <QPainter>
#include <QScreen>
#include <QWidget>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <functional>
#include <string>

namespace tarry::platform::qt {
namespace {

using guard::HUD;
using settings::T;

constexpr double kPanelHeight = 96;

/// Runs the Qt event loop until `done` or a generous limit; the limit only stops a broken test.
bool spinUntil(const std::function<bool()>& done) {
  QElapsedTimer clock;
  clock.start();
  while (!done() && clock.elapsed() < 3000) QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
  return done();
}

QColor toQColor(const Color& c) {
  return QColor::fromRgbF(static_cast<float>(c.red), static_cast<float>(c.green), static_cast<float>(c.blue));
}

bool near(const QColor& a, const QColor& b, int tolerance = 3) {
  return std::abs(a.red() - b.red()) <= tolerance && std::abs(a.green() - b.green()) <= tolerance &&
         std::abs(a.blue() - b.blue()) <= tolerance && a.alpha() == 255;
}

std::string describe(const QColor& c) {
  return std::to_string(c.red()) + "," + std::to_string(c.green()) + "," + std::to_string(c.blue()) + " a" +
         std::to_string(c.alpha());
}

class QtHudPanelTest : public ::testing::Test {
 protected:
  QtHudPanelTest() {
    panel.setCompositingOverride(true);
    screens.frames = {Rect{0, 0, 1920, 1080}};
  }

  /// The panel alone, without its shadow margin.
  [[nodiscard]] QImage content() const { return panel.snapshot().copy(panel.contentRect()); }
  /// The pixel at (x, y) points from the panel's lower-left corner.
  static QColor at(const QImage& image, double x, double y) {
    return image.pixelColor(static_cast<int>(std::floor(x)), static_cast<int>(std::floor(kPanelHeight - y)));
  }
  void save(const QImage& image, const char* name) const {
    const QString path = QStringLiteral(TARRY_HUD_PNG_DIR "/%1").arg(QString::fromUtf8(name));
    ASSERT_TRUE(image.save(path));
    std::printf("HUD picture: %s\n", path.toUtf8().constData());
  }

  QtHudPanel panel;
  sim::SimMainLoop loop;
  sim::SimScreens screens;
  settings::Tunables tunables;
  HUD hud{panel, screens, loop, tunables};
  Icon appIcon{"app.fill", 0, 0, nullptr};
};

TEST_F(QtHudPanelTest, TheMeterIsFilledInItsColourAndTheSmallestProgressIsADot) {
  hud.show("Hold Ctrl+Q to quit Demo", appIcon, 2.0);
  hud.update(1.2, 2.0);  // 60 %: yellow, filled to x = 76 + 142.8
  QImage image = content();
  EXPECT_TRUE(near(at(image, 76 + 100, 49), toQColor(guard::kSystemYellow))) << describe(at(image, 176, 49));
  EXPECT_FALSE(near(at(image, 76 + 160, 49), toQColor(guard::kSystemYellow), 40));

  hud.update(0.02, 2.0);  // 1 %: a dot as wide as the bar is high, not a sliver of 2.4 points
  image = content();
  const QColor green = toQColor(guard::kSystemGreen);
  EXPECT_TRUE(near(at(image, 76 + 7.5, 49), green)) << describe(at(image, 83.5, 49));
  EXPECT_TRUE(near(at(image, 76 + 5.5, 52.5), green, 40)) << describe(at(image, 81.5, 52.5));
  // Round: the corners of the dot's square are track, not fill.
  EXPECT_FALSE(near(at(image, 76 + 0.5, 53.5), green, 60)) << describe(at(image, 76.5, 53.5));
  EXPECT_FALSE(near(at(image, 76 + 0.5, 44.5), green, 60)) << describe(at(image, 76.5, 44.5));
  EXPECT_FALSE(near(at(image, 76 + 12.5, 49), green, 60));
}

TEST_F(QtHudPanelTest, ThePercentageIsDrawnAsItsTextInTheMeterColour) {
  hud.show("Hold Ctrl+Q to quit Demo", appIcon, 2.0);
  hud.update(2.5, 2.0);
  ASSERT_EQ(hud.layout().pctLabel.text, "99%");
  const QImage image = content();
  save(panel.snapshot(), "hud_hold.png");

  // The same text in the same font, alone, where the label puts it: top of the frame, right-aligned
  // inside the 2-point padding.
  const HudText& pct = hud.layout().pctLabel;
  QFont font = QGuiApplication::font();
  font.setPixelSize(17);
  font.setWeight(QFont::Bold);
  QImage reference(80, 22, QImage::Format_ARGB32_Premultiplied);
  reference.fill(Qt::transparent);
  {
    QPainter p(&reference);
    p.setRenderHints(QPainter::Antialiasing | QPainter::TextAntialiasing);
    p.setFont(font);
    p.setPen(Qt::black);
    p.drawText(QRectF(2, 0, 76, QFontMetricsF(font).height()), Qt::AlignRight | Qt::AlignTop, QStringLiteral("99%"));
  }
  // Ink in the panel: how far each pixel has gone from the backdrop toward the red.
  const QColor red = toQColor(guard::kSystemRed);
  const QColor backdrop = at(image, 300, 8);  // plain backdrop below the percentage
  const double dr = red.red() - backdrop.red(), dg = red.green() - backdrop.green(), db = red.blue() - backdrop.blue();
  int inkInPanel = 0, inkInReference = 0, mismatched = 0;
  const QPoint origin(static_cast<int>(pct.frame.x), static_cast<int>(kPanelHeight - pct.frame.y - pct.frame.height));
  for (int y = 0; y < 22; ++y) {
    for (int x = 0; x < 80; ++x) {
      const QColor c = image.pixelColor(origin + QPoint(x, y));
      const double toward = ((c.red() - backdrop.red()) * dr + (c.green() - backdrop.green()) * dg +
                             (c.blue() - backdrop.blue()) * db) / (dr * dr + dg * dg + db * db);
      const bool panelInk = toward > 0.5;
      const bool referenceInk = reference.pixelColor(x, y).alpha() > 127;
      inkInPanel += panelInk;
      inkInReference += referenceInk;
      mismatched += panelInk != referenceInk;
    }
  }
  EXPECT_GT(inkInReference, 60);
  EXPECT_GT(inkInPanel, 60);
  EXPECT_LE(mismatched, inkInReference / 20) << "panel " << inkInPanel << " reference " << inkInReference;
}

TEST_F(QtHudPanelTest, AMessageShowsTwoLinesAndNoMeter) {
  tunables.setNumber(T::hudFadeInSec, 0.02);
  hud.flash("Press Ctrl+Q again to quit Safari Technology Preview and all of its windows", appIcon, 1.6);
  ASSERT_TRUE(spinUntil([&] { return panel.alpha() == 1.0; }));
  const QImage image = content();
  save(panel.snapshot(), "hud_message.png");

  // The icon, from the shipped resources: dark in its middle.
  EXPECT_LT(at(image, 40, 50).lightness(), 80) << describe(at(image, 40, 50));

  // Rows of the label frame (76, 24, 238, 48) that carry dark ink, grouped into bands of text.
  int bands = 0;
  bool inBand = false;
  for (double y = 72 - 0.5; y > 24; y -= 1) {
    bool ink = false;
    for (double x = 78; x < 312; x += 1) ink = ink || at(image, x, y).lightness() < 100;
    if (ink && !inBand) ++bands;
    inBand = ink;
  }
  EXPECT_EQ(bands, 2);

  // No meter, no percentage: nothing anywhere in the meter's colours.
  int coloured = 0;
  for (int y = 0; y < image.height(); ++y) {
    for (int x = 0; x < image.width(); ++x) {
      const QColor c = image.pixelColor(x, y);
      coloured += c.alpha() > 200 && c.saturation() > 120;
    }
  }
  EXPECT_EQ(coloured, 0);
}

TEST_F(QtHudPanelTest, TheProgramsOwnIconsAreShipped) {
  for (const char* name : {"app.fill", "tarry"}) {
    SCOPED_TRACE(name);
    const QImage image = toQImage(Icon{name, 0, 0, nullptr}, 128);
    ASSERT_FALSE(image.isNull());
    EXPECT_GT(image.pixelColor(64, 64).alpha(), 200);  // drawn in the middle
    EXPECT_EQ(image.pixelColor(1, 1).alpha(), 0);      // round corners
    save(image, (std::string(name) + "_icon.png").c_str());
  }
}

TEST_F(QtHudPanelTest, ItOpensCentredOnThePointersScreenInQtsDownwardCoordinates) {
  QtScreens qtScreens;
  const std::vector<Rect> frames = qtScreens.screenFrames();
  ASSERT_EQ(frames.size(), 1U);
  const QRect geometry = QGuiApplication::primaryScreen()->geometry();
  EXPECT_EQ(frames[0], (Rect{0, 0, static_cast<double>(geometry.width()), static_cast<double>(geometry.height())}));

  QCursor::setPos(100, 50);  // near the top of the screen
  EXPECT_EQ(qtScreens.pointerLocation(), (Point{100.5, geometry.height() - 50 - 0.5}));

  tunables.setNumber(T::hudVerticalOffset, 40);  // up by 40 points
  HUD placed(panel, qtScreens, loop, tunables);
  placed.show("Hold Ctrl+Q to quit Demo", appIcon, 2.0);
  const QPoint topLeft = panel.window()->geometry().topLeft() + panel.contentRect().topLeft();
  EXPECT_EQ(topLeft, QPoint(geometry.width() / 2 - 165, geometry.height() / 2 - 48 - 40));
  EXPECT_TRUE(panel.window()->isVisible());
  placed.hideNow();
  EXPECT_FALSE(panel.window()->isVisible());
}

TEST_F(QtHudPanelTest, AStoppedFadeNeverRunsItsCompletion) {
  bool stoppedRan = false;
  panel.animateAlpha(0, 0.02, [&] { stoppedRan = true; });
  panel.setAlpha(1);
  bool finished = false;
  panel.animateAlpha(0.25, 0.02, [&] { finished = true; });
  ASSERT_TRUE(spinUntil([&] { return finished; }));
  EXPECT_FALSE(stoppedRan);
  EXPECT_DOUBLE_EQ(panel.alpha(), 0.25);
}

TEST_F(QtHudPanelTest, WithoutACompositorTheCornersAreCutAndTheBackdropIsOpaque) {
  panel.setCompositingOverride(false);
  hud.show("Hold Ctrl+Q to quit Demo", appIcon, 2.0);
  EXPECT_EQ(panel.contentRect(), QRect(0, 0, 330, 96));
  EXPECT_EQ(panel.window()->size(), QSize(330, 96));
  EXPECT_FALSE(panel.window()->mask().isEmpty());
  const QImage image = panel.snapshot();
  EXPECT_EQ(image.pixelColor(1, 1).alpha(), 0);
  EXPECT_EQ(image.pixelColor(300, 8).alpha(), 255);
}

}  // namespace
}  // namespace tarry::platform::qt
