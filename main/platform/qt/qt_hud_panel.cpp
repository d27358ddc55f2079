#include "platform/qt/qt_hud_panel.h"

#include "platform/qt/qt_convert.h"
#include "platform/qt/qt_screens.h"

#include <QFontMetricsF>
#include <QGuiApplication>
#include <QMetaObject>
#include <QPainter>
#include <QPainterPath>
#include <QRegion>
#include <QTextLayout>
#include <QVariantAnimation>
#include <QWidget>

#include <xcb/xcb.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <utility>
#include <vector>

// Outside any namespace: Q_INIT_RESOURCE declares the resource's initialiser at file scope.
static void initHudIcons() { Q_INIT_RESOURCE(hud_icons); }

namespace tarry::platform::qt {

void registerShippedIcons() {
  static const bool once = (initHudIcons(), true);
  (void)once;
}

namespace {

/// Room around the panel for its shadow; the window is this much larger on every side.
constexpr int kShadowMargin = 20;
/// The shadow falls a little below the panel, as if lit from above.
constexpr double kShadowDrop = 4;
constexpr double kShadowAlpha = 0.30;
constexpr int kShadowBlur = 7;
/// Text fields keep this much space between their edge and the text.
constexpr double kTextPadding = 2;

QColor toQColor(const Color& c, bool opaque = false) {
  return QColor::fromRgbF(static_cast<float>(c.red), static_cast<float>(c.green), static_cast<float>(c.blue),
                          opaque ? 1.0f : static_cast<float>(c.alpha));
}

/// A rectangle given from the lower-left corner of a `height`-high area, from its top-left.
QRectF flipped(const Rect& r, double height) { return {r.x, height - r.y - r.height, r.width, r.height}; }

QFont makeFont(const Font& f) {
  QFont font = QGuiApplication::font();
  // Points of the layout are logical pixels here, as on the desktop the sizes come from.
  font.setPixelSize(std::max(1, static_cast<int>(std::lround(f.size))));
  switch (f.weight) {
    case FontWeight::regular: font.setWeight(QFont::Normal); break;
    case FontWeight::semibold: font.setWeight(QFont::DemiBold); break;
    case FontWeight::bold: font.setWeight(QFont::Bold); break;
  }
#if QT_VERSION >= QT_VERSION_CHECK(6, 7, 0)
  if (f.monospacedDigits) font.setFeature(QFont::Tag("tnum"), 1);
#endif
  // Before Qt 6.7 fonts keep their default figures, which are tabular in the common desktop
  // fonts (DejaVu Sans, Noto Sans), so the running seconds do not jitter there either.
  return font;
}

/// The lines of `text` as the label shows them: one elided line, or words wrapped onto at most
/// `maxLines` lines, the last one elided when text is left over.
QStringList layoutLines(const QString& text, const QFont& font, const HudText& t, double width) {
  const QFontMetricsF metrics(font);
  if (t.lineBreak == LineBreak::truncateTail || t.maxLines <= 1) {
    QString oneLine = text;
    oneLine.replace(QLatin1Char('\n'), QLatin1Char(' '));
    return {metrics.elidedText(oneLine, Qt::ElideRight, width)};
  }
  QTextLayout layout(text, font);
  QTextOption option;
  option.setWrapMode(QTextOption::WrapAtWordBoundaryOrAnywhere);
  layout.setTextOption(option);
  QStringList lines;
  layout.beginLayout();
  for (;;) {
    QTextLine line = layout.createLine();
    if (!line.isValid()) break;
    line.setLineWidth(width);
    if (lines.size() + 1 == t.maxLines) {
      QString rest = text.mid(line.textStart());
      rest.replace(QLatin1Char('\n'), QLatin1Char(' '));
      lines << metrics.elidedText(rest, Qt::ElideRight, width);
      break;
    }
    lines << text.mid(line.textStart(), line.textLength()).trimmed();
  }
  layout.endLayout();
  return lines;
}

/// Three passes of a box blur over an alpha channel: close to a Gaussian, and cheap.
void blurAlpha(std::vector<float>& a, int w, int h, int radius) {
  std::vector<float> tmp(a.size());
  const auto pass = [&](const std::vector<float>& in, std::vector<float>& out, bool horizontal) {
    const int n = horizontal ? w : h;
    const int lines = horizontal ? h : w;
    for (int l = 0; l < lines; ++l) {
      const auto at = [&](int i) -> float {
        i = std::clamp(i, 0, n - 1);
        return in[static_cast<std::size_t>(horizontal ? l * w + i : i * w + l)];
      };
      float sum = 0;
      for (int i = -radius; i <= radius; ++i) sum += at(i);
      for (int i = 0; i < n; ++i) {
        out[static_cast<std::size_t>(horizontal ? l * w + i : i * w + l)] = sum / static_cast<float>(2 * radius + 1);
        sum += at(i + radius + 1) - at(i - radius);
      }
    }
  };
  for (int k = 0; k < 3; ++k) {
    pass(a, tmp, true);
    pass(tmp, a, false);
  }
}

/// True when a compositing manager runs on the X server (it owns the _NET_WM_CM_S0 selection).
/// Other platforms (Wayland, offscreen) always composite.
bool compositingActive() {
  auto* x11 = qGuiApp == nullptr ? nullptr : qGuiApp->nativeInterface<QNativeInterface::QX11Application>();
  if (x11 == nullptr || x11->connection() == nullptr) return true;
  xcb_connection_t* connection = x11->connection();
  // An atom keeps its value for as long as the connection's server runs, so it is interned once
  // and only the owner is asked each time: this runs at every orderFront, on the path of the key
  // press that starts a hold.
  static xcb_connection_t* internedOn = nullptr;
  static xcb_atom_t selection = XCB_ATOM_NONE;
  if (internedOn != connection) {
    static const char kName[] = "_NET_WM_CM_S0";
    xcb_intern_atom_reply_t* atom =
        xcb_intern_atom_reply(connection, xcb_intern_atom(connection, 0, sizeof kName - 1, kName), nullptr);
    if (atom == nullptr) return false;
    selection = atom->atom;
    internedOn = connection;
    std::free(atom);
  }
  xcb_get_selection_owner_reply_t* owner =
      xcb_get_selection_owner_reply(connection, xcb_get_selection_owner(connection, selection), nullptr);
  const bool active = owner != nullptr && owner->owner != XCB_NONE;
  std::free(owner);
  return active;
}

}  // namespace

/// The window itself. Draws the layout it was given, nothing more.
class HudWindow final : public QWidget {
 public:
  HudWindow()
      : QWidget(nullptr, Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint |
                             // Not managed by the window manager: an EWMH manager such as openbox
                             // stacks a focused full-screen window above "always on top" ones and
                             // may move, focus or pin a managed window to one workspace. An
                             // override-redirect window is raised by us alone, shows on every
                             // workspace and is never given focus.
                             Qt::X11BypassWindowManagerHint | Qt::WindowTransparentForInput |
                             Qt::WindowDoesNotAcceptFocus) {
    setAttribute(Qt::WA_TranslucentBackground);
    setAttribute(Qt::WA_ShowWithoutActivating);
    setAttribute(Qt::WA_TransparentForMouseEvents);
    setAttribute(Qt::WA_X11DoNotAcceptFocus);
    // Lets compositors apply their notification rules (no focus fade, a shadow where set).
    setAttribute(Qt::WA_X11NetWmWindowTypeNotification);
    setFocusPolicy(Qt::NoFocus);
    animation_.setEasingCurve(QEasingCurve::InOutQuad);
    QObject::connect(&animation_, &QVariantAnimation::valueChanged, this, [this](const QVariant& v) {
      alpha_ = v.toDouble();
      syncVisibility();
      update();
    });
    reconfigure();
  }

  HudLayout layout;
  std::optional<bool> compositingOverride;

  [[nodiscard]] double alpha() const { return alpha_; }
  [[nodiscard]] int margin() const { return composited_ && layout.shadow ? kShadowMargin : 0; }
  [[nodiscard]] QRect content() const {
    return {margin(), margin(), static_cast<int>(std::lround(layout.width)), static_cast<int>(std::lround(layout.height))};
  }

  void applyLayout(const HudLayout& l) {
    const bool geometryChanged =
        l.width != layout.width || l.height != layout.height || l.cornerRadius != layout.cornerRadius || l.shadow != layout.shadow;
    layout = l;
    if (geometryChanged) {
      // The shadow follows the panel's size and corners; nothing else changes it.
      shadow_ = {};
      reconfigure();
    }
    update();
  }

  void setAlphaNow(double a) {
    stopAnimation();
    alpha_ = std::clamp(a, 0.0, 1.0);
    syncVisibility();
    update();
  }

  void animateAlphaTo(double a, double seconds, std::function<void()> completion) {
    stopAnimation();
    const std::uint64_t generation = generation_;
    const double target = std::clamp(a, 0.0, 1.0);
    // The completion runs from the event loop, never inside the animation's own signal, and only
    // if nothing stopped the animation in between.
    auto finish = [this, generation, completion = std::move(completion)] {
      QMetaObject::invokeMethod(
          this,
          [this, generation, completion] {
            if (generation == generation_ && completion) completion();
          },
          Qt::QueuedConnection);
    };
    if (!(seconds > 0)) {
      alpha_ = target;
      syncVisibility();
      update();
      finish();
      return;
    }
    animation_.setStartValue(alpha_);
    animation_.setEndValue(target);
    animation_.setDuration(static_cast<int>(std::lround(seconds * 1000)));
    QObject::connect(&animation_, &QVariantAnimation::finished, this, std::move(finish), Qt::SingleShotConnection);
    animation_.start();
  }

  void setOriginPoint(Point o) {
    origin_ = o;
    reposition();
  }

  void orderFrontNow() {
    orderedIn_ = true;
    reconfigure();
    syncVisibility();
    if (isVisible()) raise();
  }

  void orderOutNow() {
    stopAnimation();
    orderedIn_ = false;
    hide();
  }

  /// Recomputes what depends on compositing: margin for the shadow, window size, shape mask.
  void reconfigure() {
    composited_ = compositingOverride.value_or(compositingActive());
    const QRect c = content();
    resize(c.width() + 2 * margin(), c.height() + 2 * margin());
    if (composited_) {
      clearMask();
    } else {
      // Without a compositor the window cannot be see-through: cut the round corners out with
      // the X shape extension instead.
      QPainterPath path;
      path.addRoundedRect(QRectF(c), layout.cornerRadius, layout.cornerRadius);
      setMask(QRegion(path.toFillPolygon().toPolygon()));
    }
    reposition();
  }

 protected:
  void paintEvent(QPaintEvent* /*event*/) override {
    QPainter p(this);
    p.setRenderHints(QPainter::Antialiasing | QPainter::TextAntialiasing | QPainter::SmoothPixmapTransform);
    // Without a compositor opacity cannot show; the panel is drawn opaque while it is visible.
    p.setOpacity(composited_ ? alpha_ : 1.0);
    if (margin() > 0) p.drawImage(0, 0, shadowImage());
    p.translate(margin(), margin());
    const double h = layout.height;

    if (composited_) {
      QPainterPath backdrop;
      backdrop.addRoundedRect(QRectF(0, 0, layout.width, h), layout.cornerRadius, layout.cornerRadius);
      p.fillPath(backdrop, toQColor(layout.background));
    } else {
      // The shape mask rounds the corners. An antialiased edge here would leave half-transparent
      // pixels inside the mask, which an uncomposited X server shows dark.
      p.fillRect(QRectF(0, 0, layout.width, h), toQColor(layout.background, true));
    }

    drawIcon(p, h);
    drawText(p, layout.label, h);
    if (layout.bar.visible) {
      const QRectF frame = flipped(layout.bar.frame, h);
      const auto drawRounded = [&](const RoundedRect& r) {
        QRectF rect = flipped(r.rect, layout.bar.frame.height).translated(frame.topLeft());
        QPainterPath path;
        path.addRoundedRect(rect, r.radius, r.radius);
        p.fillPath(path, toQColor(r.color));
      };
      drawRounded(layout.bar.track);
      if (layout.bar.fill) drawRounded(*layout.bar.fill);
    }
    drawText(p, layout.timeLabel, h);
    drawText(p, layout.pctLabel, h);
  }

 private:
  void stopAnimation() {
    ++generation_;
    QObject::disconnect(&animation_, &QVariantAnimation::finished, this, nullptr);
    animation_.stop();
  }

  /// Visible while ordered in; without a compositor, also only while not fully faded out.
  void syncVisibility() {
    const bool wanted = orderedIn_ && (composited_ || alpha_ > 0.0);
    if (wanted && !isVisible()) {
      show();
      raise();
    } else if (!wanted && isVisible()) {
      hide();
    }
  }

  void reposition() {
    if (!origin_) return;
    const QPointF topLeft = toQtTopLeft(*origin_, layout.height);
    move(static_cast<int>(std::lround(topLeft.x())) - margin(), static_cast<int>(std::lround(topLeft.y())) - margin());
  }

  void drawIcon(QPainter& p, double h) {
    if (layout.icon.image.empty()) return;
    const QRectF frame = flipped(layout.icon.frame, h);
    const qreal dpr = devicePixelRatioF();
    const int side = static_cast<int>(std::ceil(std::max(frame.width(), frame.height()) * dpr));
    if (!(iconKey_ == layout.icon.image) || iconSide_ != side) {
      iconKey_ = layout.icon.image;
      iconSide_ = side;
      iconImage_ = toQImage(layout.icon.image, side);
    }
    if (iconImage_.isNull()) return;
    // Scaled proportionally up or down to fit, centred.
    const QSizeF fitted = QSizeF(iconImage_.size()).scaled(frame.size(), Qt::KeepAspectRatio);
    const QRectF target(frame.x() + (frame.width() - fitted.width()) / 2,
                        frame.y() + (frame.height() - fitted.height()) / 2, fitted.width(), fitted.height());
    p.drawImage(target, iconImage_);
  }

  void drawText(QPainter& p, const HudText& t, double h) {
    if (!t.visible || t.text.empty()) return;
    const QRectF box = flipped(t.frame, h).adjusted(kTextPadding, 0, -kTextPadding, 0);
    const QFont font = makeFont(t.font);
    const QFontMetricsF metrics(font);
    p.setFont(font);
    p.setPen(toQColor(t.color));
    const Qt::Alignment horizontal = t.alignment == TextAlignment::right ? Qt::AlignRight : Qt::AlignLeft;
    const QStringList lines = layoutLines(toQString(t.text), font, t, box.width());
    double y = box.top();
    for (const QString& line : lines) {
      p.drawText(QRectF(box.left(), y, box.width(), metrics.height()), horizontal | Qt::AlignTop, line);
      y += metrics.lineSpacing();
    }
  }

  const QImage& shadowImage() {
    const QRect c = content();
    const int w = c.width() + 2 * margin();
    const int hgt = c.height() + 2 * margin();
    if (shadow_.width() == w && shadow_.height() == hgt) return shadow_;
    QImage shape(w, hgt, QImage::Format_ARGB32_Premultiplied);
    shape.fill(Qt::transparent);
    {
      QPainter sp(&shape);
      sp.setRenderHint(QPainter::Antialiasing);
      QPainterPath path;
      path.addRoundedRect(QRectF(c).translated(0, kShadowDrop), layout.cornerRadius, layout.cornerRadius);
      sp.fillPath(path, QColor(0, 0, 0, 255));
    }
    std::vector<float> a(static_cast<std::size_t>(w) * static_cast<std::size_t>(hgt));
    for (int y = 0; y < hgt; ++y) {
      const auto* row = reinterpret_cast<const QRgb*>(shape.constScanLine(y));
      for (int x = 0; x < w; ++x) a[static_cast<std::size_t>(y * w + x)] = static_cast<float>(qAlpha(row[x]));
    }
    blurAlpha(a, w, hgt, kShadowBlur);
    shadow_ = QImage(w, hgt, QImage::Format_ARGB32_Premultiplied);
    for (int y = 0; y < hgt; ++y) {
      auto* row = reinterpret_cast<QRgb*>(shadow_.scanLine(y));
      for (int x = 0; x < w; ++x) {
        const int alpha = static_cast<int>(a[static_cast<std::size_t>(y * w + x)] * kShadowAlpha + 0.5f);
        row[x] = qRgba(0, 0, 0, std::clamp(alpha, 0, 255));
      }
    }
    // Only the part outside the panel: the backdrop may be slightly see-through.
    QPainter cut(&shadow_);
    cut.setRenderHint(QPainter::Antialiasing);
    cut.setCompositionMode(QPainter::CompositionMode_Clear);
    QPainterPath panel;
    panel.addRoundedRect(QRectF(c), layout.cornerRadius, layout.cornerRadius);
    cut.fillPath(panel, Qt::black);
    return shadow_;
  }

  QVariantAnimation animation_;
  std::uint64_t generation_ = 0;
  double alpha_ = 1;
  bool orderedIn_ = false;
  bool composited_ = true;
  std::optional<Point> origin_;
  QImage shadow_;
  Icon iconKey_;
  int iconSide_ = 0;
  QImage iconImage_;
};

QtHudPanel::QtHudPanel() {
  registerShippedIcons();
  window_ = std::make_unique<HudWindow>();
}

QtHudPanel::~QtHudPanel() = default;

void QtHudPanel::apply(const HudLayout& layout) { window_->applyLayout(layout); }
void QtHudPanel::setAlpha(double alpha) { window_->setAlphaNow(alpha); }
void QtHudPanel::animateAlpha(double alpha, double seconds, std::function<void()> completion) {
  window_->animateAlphaTo(alpha, seconds, std::move(completion));
}
void QtHudPanel::setOrigin(Point origin) { window_->setOriginPoint(origin); }
void QtHudPanel::orderFront() { window_->orderFrontNow(); }
void QtHudPanel::orderOut() { window_->orderOutNow(); }

void QtHudPanel::setCompositingOverride(std::optional<bool> composited) {
  window_->compositingOverride = composited;
  window_->reconfigure();
  window_->update();
}

QImage QtHudPanel::snapshot() const {
  // Render, not grab: grab would show nothing of a panel that has been ordered out.
  QImage image(window_->size(), QImage::Format_ARGB32_Premultiplied);
  image.fill(Qt::transparent);
  window_->render(&image, QPoint(), QRegion(), QWidget::DrawChildren);
  return image;
}

QRect QtHudPanel::contentRect() const { return window_->content(); }
QWidget* QtHudPanel::window() const { return window_.get(); }
double QtHudPanel::alpha() const { return window_->alpha(); }

}  // namespace tarry::platform::qt
