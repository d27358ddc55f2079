#include "platform/gnome/gnome_hud_panel.h"

#include <QGuiApplication>
#include <QScreen>
#include <QTimer>

#include <cmath>

namespace tarry::platform::gnome {
namespace {

nlohmann::json rectJson(const Rect& r) {
  return {{"x", r.x}, {"y", r.y}, {"width", r.width}, {"height", r.height}};
}

nlohmann::json colorJson(const Color& c) {
  return {{"red", c.red}, {"green", c.green}, {"blue", c.blue}, {"alpha", c.alpha}};
}

nlohmann::json textJson(const HudText& t) {
  const char* weight = t.font.weight == FontWeight::bold       ? "bold"
                       : t.font.weight == FontWeight::semibold ? "semibold"
                                                               : "regular";
  return {
      {"visible", t.visible},
      {"frame", rectJson(t.frame)},
      {"text", t.text},
      {"font", {{"size", t.font.size}, {"weight", weight}, {"monospacedDigits", t.font.monospacedDigits}}},
      {"color", colorJson(t.color)},
      {"alignment", t.alignment == TextAlignment::right ? "right" : "left"},
      {"maxLines", t.maxLines}};
}

nlohmann::json roundedJson(const RoundedRect& r) {
  return {{"rect", rectJson(r.rect)}, {"radius", r.radius}, {"color", colorJson(r.color)}};
}

// Desktop coordinates run up from the primary screen's bottom edge; the Shell's run down from its top.
double flipLine() {
  const QScreen* screen = QGuiApplication::primaryScreen();
  if (!screen) return 0;
  const QRect g = screen->geometry();
  return g.y() + g.height();
}

}  // namespace

nlohmann::json hudLayoutJson(const HudLayout& layout) {
  nlohmann::json bar = {{"visible", layout.bar.visible},
                        {"frame", rectJson(layout.bar.frame)},
                        {"track", roundedJson(layout.bar.track)},
                        {"fill", nullptr}};
  if (layout.bar.fill) bar["fill"] = roundedJson(*layout.bar.fill);
  return {{"width", layout.width},
          {"height", layout.height},
          {"cornerRadius", layout.cornerRadius},
          {"shadow", layout.shadow},
          {"background", colorJson(layout.background)},
          {"icon", {{"frame", rectJson(layout.icon.frame)}, {"name", layout.icon.image.name}}},
          {"label", textJson(layout.label)},
          {"bar", bar},
          {"timeLabel", textJson(layout.timeLabel)},
          {"pctLabel", textJson(layout.pctLabel)}};
}

GnomeHudPanel::GnomeHudPanel(GnomeShell& shell)
    : shell_(shell), fade_(std::make_unique<QTimer>()), flush_(std::make_unique<QTimer>()) {
  flush_->setSingleShot(true);
  flush_->setInterval(0);
  QObject::connect(flush_.get(), &QTimer::timeout, [this] { flush(); });
  fade_->setSingleShot(true);
  QObject::connect(fade_.get(), &QTimer::timeout, [this] {
    std::function<void()> completion = std::move(completion_);
    completion_ = nullptr;
    if (completion) completion();
  });
}

GnomeHudPanel::~GnomeHudPanel() = default;

void GnomeHudPanel::send(nlohmann::json state) {
  pending_.push_back(std::move(state));
  if (!flush_->isActive()) flush_->start();
}

void GnomeHudPanel::flush() {
  flush_->stop();
  if (pending_.empty()) return;
  shell_.send(QStringLiteral("Hud"), {QString::fromStdString(pending_.dump())});
  pending_ = nlohmann::json::array();
}

void GnomeHudPanel::stopFade() {
  fade_->stop();
  completion_ = nullptr;
}

void GnomeHudPanel::apply(const HudLayout& layout) {
  const bool moved = origin_ && layout.height != height_;
  height_ = layout.height;
  send({{"op", "layout"}, {"layout", hudLayoutJson(layout)}});
  if (moved) setOrigin(*origin_);
}

void GnomeHudPanel::setAlpha(double alpha) {
  stopFade();
  send({{"op", "alpha"}, {"alpha", alpha}});
}

void GnomeHudPanel::animateAlpha(double alpha, double seconds, std::function<void()> completion) {
  stopFade();
  send({{"op", "fade"}, {"alpha", alpha}, {"seconds", seconds}});
  completion_ = std::move(completion);
  fade_->start(static_cast<int>(std::lround(std::max(0.0, seconds) * 1000)));
}

void GnomeHudPanel::setOrigin(Point origin) {
  origin_ = origin;
  send({{"op", "origin"}, {"x", origin.x}, {"y", flipLine() - (origin.y + height_)}});
}

void GnomeHudPanel::orderFront() {
  send({{"op", "show"}});
  flush();
}

void GnomeHudPanel::orderOut() {
  stopFade();
  send({{"op", "hide"}});
  flush();
}

}  // namespace tarry::platform::gnome
