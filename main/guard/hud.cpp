#include "guard/hud.h"

#include "settings/tunables.h"

#include <algorithm>
#include <charconv>
#include <cmath>

namespace tarry::guard {
namespace {

using platform::Color;
using platform::Font;
using platform::FontWeight;
using platform::LineBreak;
using platform::Rect;
using settings::T;

constexpr double kPanelWidth = 330;
constexpr double kPanelHeight = 96;
/// The backdrop of the light look: a near-white sheet, slightly see-through where the desktop
/// composites windows (there is no blur of what lies behind on X11).
constexpr Color kBackdrop{246 / 255.0, 246 / 255.0, 246 / 255.0, 0.96};

constexpr Rect kIconFrame{18, 28, 44, 44};
constexpr Rect kTitleFrame{76, 62, 238, 20};
constexpr Rect kReasonsFrame{76, 56, 238, 34};
constexpr Rect kMessageFrame{76, 24, 238, 48};
constexpr Rect kBarFrame{76, 44, 238, 10};
constexpr Rect kTimeFrame{76, 20, 160, 16};
constexpr Rect kPctFrame{234, 16, 80, 22};

/// "%.1f" in the C locale, whatever locale the toolkit has switched the process to.
std::string oneDecimal(double value) {
  char buffer[64];
  const auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::fixed, 1);
  if (ec != std::errc()) return "0.0";
  return {buffer, end};
}

/// Zero for NaN, and +0 for −0, so the time text never reads "-0.0 s".
double tidy(double value) { return std::isnan(value) ? 0.0 : value + 0.0; }

}  // namespace

HUD::HUD(platform::HudPanel& panel, const platform::Screens& screens, platform::MainLoop& loop,
         const settings::Tunables& tunables)
    : panel(panel),
      bar(kBarFrame),
      screens_(screens),
      loop_(loop),
      tunables_(tunables),
      cornerRadius_(tunables.real(T::hudCornerRadius)),
      shadow_(tunables.flag(T::hudShadow)),
      self_(std::make_shared<HUD*>(this)) {
  icon.frame = kIconFrame;
  label.frame = kTitleFrame;
  label.font = Font{14, FontWeight::semibold, false};
  label.color = kLabelColor;
  timeLabel.frame = kTimeFrame;
  timeLabel.font = Font{12, FontWeight::regular, true};
  timeLabel.color = kSecondaryLabelColor;
  timeLabel.visible = false;
  pctLabel.frame = kPctFrame;
  pctLabel.font = Font{17, FontWeight::bold, true};
  pctLabel.color = kSystemGreen;
  pctLabel.alignment = platform::TextAlignment::right;
  pctLabel.visible = false;
  redraw();
}

HUD::~HUD() = default;

platform::HudLayout HUD::layout() const {
  platform::HudLayout layout;
  layout.width = kPanelWidth;
  layout.height = kPanelHeight;
  layout.cornerRadius = cornerRadius_;
  layout.shadow = shadow_;
  layout.background = kBackdrop;
  layout.icon = icon;
  layout.label = label;
  layout.bar = bar.drawing(tunables_.real(T::meterTrackAlpha), barVisible_);
  layout.timeLabel = timeLabel;
  layout.pctLabel = pctLabel;
  return layout;
}

void HUD::redraw() { panel.apply(layout()); }

void HUD::place() {
  const platform::Point pointer = screens_.pointerLocation();
  std::optional<Rect> target;
  for (const Rect& frame : screens_.screenFrames()) {
    if (frame.contains(pointer)) {
      target = frame;
      break;
    }
  }
  if (!target) target = screens_.mainScreenFrame();
  if (target) {
    panel.setOrigin({target->midX() - kPanelWidth / 2,
                     target->midY() - kPanelHeight / 2 + tunables_.real(T::hudVerticalOffset)});
  }
  panel.orderFront();
  onScreen_ = true;
}

void HUD::setLabel(const Rect& frame, double fontSize, int maxLines, LineBreak lineBreak, std::string text) {
  label.frame = frame;
  label.font = Font{fontSize, FontWeight::semibold, false};
  label.maxLines = maxLines;
  label.lineBreak = lineBreak;
  label.text = std::move(text);
}

void HUD::setMeterVisible(bool visible) {
  barVisible_ = visible;
  timeLabel.visible = visible;
  pctLabel.visible = visible;
}

void HUD::show(const std::string& title, const platform::Icon& image, double duration) {
  // A message's pending fade-out must not hide the hold.
  hideWork.cancel();
  setLabel(kTitleFrame, 14, 1, LineBreak::truncateTail, title);
  icon.image = image;
  setMeterVisible(true);
  update(0, duration);
  // Setting the opacity outright also stops a fade that is still running.
  panel.setAlpha(tunables_.real(T::hudShowAlpha));
  place();
}

void HUD::update(double elapsed, double duration) {
  double p = 0;
  if (duration > 0) p = std::min(std::max(tidy(elapsed / duration), 0.0), 0.99);
  Color color = kSystemRed;
  if (p < tunables_.real(T::meterGreenThreshold)) {
    color = kSystemGreen;
  } else if (p < tunables_.real(T::meterYellowThreshold)) {
    color = kSystemYellow;
  }
  bar.value = p;
  bar.tint = color;
  // NOTE: truncated, not rounded: 0.495 reads 49 %, and the cap of 0.99 never reads 100 %.
  pctLabel.text = std::to_string(static_cast<int>(p * 100)) + "%";
  pctLabel.color = color;
  const double shown = tidy(std::min(std::max(tidy(elapsed), 0.0), duration));
  timeLabel.text = oneDecimal(shown) + " s of " + oneDecimal(tidy(duration)) + " s";
  redraw();
}

void HUD::setReasons(const std::vector<std::string>& reasons) {
  std::string joined;
  for (const std::string& reason : reasons) {
    if (!joined.empty()) joined += " · ";
    joined += reason;
  }
  setLabel(kReasonsFrame, 12, 2, LineBreak::wordWrap, "⚠️ " + joined + ". Keep holding.");
  redraw();
}

void HUD::flash(const std::string& message, const platform::Icon& image, double seconds) {
  hideWork.cancel();
  setLabel(kMessageFrame, 14, 2, LineBreak::wordWrap, message);
  icon.image = image;
  setMeterVisible(false);
  redraw();
  panel.setAlpha(0);
  place();
  // NOTE: a message always fades in to full opacity; hudShowAlpha is for the hold layout only.
  panel.animateAlpha(1.0, tunables_.real(T::hudFadeInSec), {});
  std::weak_ptr<HUD*> weak = self_;
  hideWork = loop_.after(seconds, [weak] {
    const auto self = weak.lock();
    if (!self) return;
    HUD& hud = **self;
    hud.panel.animateAlpha(0, hud.tunables_.real(T::hudFadeOutSec), [weak] {
      if (const auto alive = weak.lock()) {
        (*alive)->panel.orderOut();
        (*alive)->onScreen_ = false;
      }
    });
  });
}

void HUD::hideNow() {
  hideWork.cancel();
  panel.orderOut();
  onScreen_ = false;
}

}  // namespace tarry::guard
