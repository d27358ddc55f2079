#include "diagnostics/basic_app_telemetry.h"

#include "diagnostics/telemetry_sender.h"
#include "guard/terminals.h"

#include <algorithm>
#include <array>

namespace tarry::diagnostics {
namespace {

constexpr std::array<std::string_view, 16> kBrowsers = {
    "com.apple.Safari",      "com.google.Chrome",
    "org.mozilla.firefox",   "firefox",
    "firefox-esr",           "org.mozilla.firefox.desktop",
    "com.microsoft.edgemac", "microsoft-edge",
    "com.brave.Browser",     "brave-browser",
    "org.chromium.Chromium", "chromium",
    "google-chrome",         "com.operasoftware.Opera",
    "org.gnome.Epiphany",    "vivaldi-stable",
};

bool contains(const std::vector<std::string>& ids, const std::string& id) {
  return std::find(ids.begin(), ids.end(), id) != ids.end();
}

}  // namespace

void BasicAppTelemetry::recordAppSeen(const std::string& bundleID, std::string_view kind) {
  if (bundleID.empty()) return;
  auto& seen = kind == "quit" ? quit_ : attempted_;
  if (kind != "quit" && kind != "attempted") return;
  if (seen.size() < kCap) seen.insert(bundleID);
}

std::string appCategory(const platform::Workspace& workspace, const platform::RunningApp& app) {
  const std::string& id = app.bundleID;
  if (id.empty()) return "other";
  if (id == "com.apple.finder" ||
      contains(workspace.identifierEquivalents(platform::IdentifierSet::neverTerminate), id)) {
    return "finder";
  }
  if (guard::isTerminalApp(workspace, id)) return "terminal";
  if (std::find(kBrowsers.begin(), kBrowsers.end(), id) != kBrowsers.end()) return "browser";
  return "other";
}

std::string BasicAppTelemetry::category(const platform::RunningApp& app) {
  return appCategory(workspace_, app);
}

}  // namespace tarry::diagnostics
