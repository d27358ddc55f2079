#include "guard/terminals.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace tarry::guard {
namespace {

// Terminal emulators by the identifiers they have everywhere; the desktop adds its own through
// Workspace::identifierEquivalents.
constexpr std::array<std::string_view, 9> kTerminals = {
    "com.apple.Terminal", "com.googlecode.iterm2", "dev.warp.Warp-Stable",
    "dev.warp.Warp",      "com.mitchellh.ghostty", "com.github.wez.wezterm",
    "org.alacritty",      "io.alacritty",          "net.kovidgoyal.kitty",
};

bool equalCaseless(std::string_view a, std::string_view b) {
  const auto lower = [](unsigned char c) { return c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c; };
  return a.size() == b.size() &&
         std::equal(a.begin(), a.end(), b.begin(), [&](char x, char y) { return lower(x) == lower(y); });
}

}  // namespace

bool isTerminalApp(const platform::Workspace& workspace, const std::string& bundleID) {
  if (bundleID.empty()) return false;
  if (std::any_of(kTerminals.begin(), kTerminals.end(),
                  [&](std::string_view id) { return equalCaseless(id, bundleID); })) {
    return true;
  }
  const auto extra = workspace.identifierEquivalents(platform::IdentifierSet::terminals);
  return std::any_of(extra.begin(), extra.end(),
                     [&](const std::string& id) { return equalCaseless(id, bundleID); });
}

}  // namespace tarry::guard
