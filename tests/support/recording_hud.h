#pragma once

#include "guard/hud_display.h"

#include <string>
#include <vector>

namespace tarry::test_support {

/// A HUD that writes down what the logic asks of it: "show <title>", "reasons",
/// "flash <message> [<icon>]" and "hide" in `calls`, the flashed messages and their seconds apart.
struct RecordingHud final : guard::HudDisplay {
  void show(const std::string& title, const platform::Icon&, double) override {
    calls.push_back("show " + title);
  }
  void update(double, double) override { ++updates; }
  void setReasons(const std::vector<std::string>&) override { calls.emplace_back("reasons"); }
  void flash(const std::string& message, const platform::Icon& icon, double seconds) override {
    calls.push_back("flash " + message + " [" + icon.name + "]");
    flashes.push_back(message);
    flashSeconds.push_back(seconds);
  }
  void hideNow() override { calls.emplace_back("hide"); }

  std::vector<std::string> calls;
  std::vector<std::string> flashes;
  std::vector<double> flashSeconds;
  int updates = 0;
};

}  // namespace tarry::test_support
