#include "cli/telemetry_demo.h"

#include "app/app_identity.h"
#include "platform/linux/sqlite_defaults_store.h"
#include "platform/linux/xdg_autostart.h"
#include "settings/preferences.h"
#include "settings/settings_snapshot.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

namespace tarry::cli {

int runTelemetryDemo() {
  platform::os::SqliteDefaultsStore store(
      platform::os::SqliteDefaultsStore::defaultPath(),
      [](const std::string& line) { std::cerr << "tarry: " << line << '\n'; });
  settings::Preferences prefs(store);
  platform::os::XdgAutostart loginItems(platform::os::configHome(), app::kAppId,
                                        platform::os::executablePath());
  settings::SnapshotFacts facts;
  // This process guards nothing; keyboard access is what a launch here would have: a display.
  const char* display = std::getenv("DISPLAY");
  facts.accessibility = display != nullptr && *display != '\0';
  const nlohmann::json snapshot = settings::settingsSnapshot(prefs, loginItems, facts);
  std::string text;
  try {
    // NOTE: nlohmann::json keeps object keys sorted.
    text = snapshot.dump(2);
  } catch (const nlohmann::json::exception&) {
    std::fputs("snapshot is not valid JSON\n", stdout);
    return 1;
  }
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fputc('\n', stdout);
  return 0;
}

}  // namespace tarry::cli
