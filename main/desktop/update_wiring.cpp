#include "desktop/update_wiring.h"

#include "settings/server_url.h"

#include <cstdlib>
#include <optional>

namespace tarry::desktop {
namespace {

/// 64 hex digits → 32 bytes; empty for anything else.
std::string keyBytes(const std::string& hex) {
  if (hex.size() != 64) return {};
  std::string out;
  for (std::size_t i = 0; i < hex.size(); i += 2) {
    const auto nibble = [](char c) -> int {
      if (c >= '0' && c <= '9') return c - '0';
      if (c >= 'a' && c <= 'f') return c - 'a' + 10;
      if (c >= 'A' && c <= 'F') return c - 'A' + 10;
      return -1;
    };
    const int hi = nibble(hex[i]);
    const int lo = nibble(hex[i + 1]);
    if (hi < 0 || lo < 0) return {};
    out.push_back(static_cast<char>(hi * 16 + lo));
  }
  return out;
}

}  // namespace

std::string DesktopUpdates::builtInKeyHex() { return TARRY_UPDATE_PUBLIC_KEY; }

DesktopUpdates::DesktopUpdates(DesktopUpdatesDeps deps)
    : deps_(std::move(deps)),
      installer_({deps_.loop, downloader_, deps_.http, digest_, files_,
                  deps_.alerts ? *deps_.alerts : qtAlerts_, progress_,
                  deps_.target ? *deps_.target : linuxTarget_, deps_.tunables, deps_.log,
                  keyBytes(deps_.publicKeyHex.empty() ? builtInKeyHex() : deps_.publicKeyHex), deps_.version,
                  deps_.quit}),
      checker_({deps_.loop, deps_.http, deps_.alerts ? *deps_.alerts : qtAlerts_, deps_.store, deps_.tunables,
                deps_.hud, deps_.count, deps_.log,
                deps_.serverURL.empty() ? settings::serverBaseURL() : deps_.serverURL, deps_.version,
                deps_.icon}) {
  platform::qt::trustCertificatesFromEnvironment();
  checker_.install = [this](const update::Release& release) { installer_.install(release); };
  // Without a key nothing can be verified, so nothing is fetched ahead either.
  if (installer_.canVerify()) {
    checker_.prefetch = [this](const update::Release& release, update::UpdateChecker::PrefetchDone done) {
      installer_.prefetch(release, std::move(done));
    };
  }
  checker_.metered = deps_.metered;
  checker_.busy = deps_.busy;

  // A hidden testing aid (the end-to-end tests have no signed release to install): with
  // TARRY_DEBUG_RELAUNCH_AFTER=<seconds> the program starts itself again that long after launch,
  // as an installed update does, and quits once the new copy runs. The new copy does not repeat it.
  const char* after = std::getenv("TARRY_DEBUG_RELAUNCH_AFTER");
  if (const double seconds = after ? std::atof(after) : 0; seconds > 0) {
    ::unsetenv("TARRY_DEBUG_RELAUNCH_AFTER");
    debugRelaunch_ = deps_.loop.after(seconds, [this] {
      const std::string error = linuxTarget_.relaunch();
      deps_.log(error.empty() ? std::string("relaunched, restarting") : "relaunch failed: " + error);
      if (error.empty() && deps_.quit) deps_.quit();
    });
  }
}

void DesktopUpdates::startAutomaticChecks() {
  first_ = deps_.loop.after(deps_.tunables.real(settings::T::firstCheckDelaySec), [this] {
    automaticCheck();
    repeat_ = deps_.loop.every(
        deps_.tunables.real(settings::T::pingMinutes) * 60, [this] { automaticCheck(); }, 60);
  });
}

void DesktopUpdates::automaticCheck() {
  if (deps_.tunables.flag(settings::T::updateChecksPaused) || installer_.busy()) return;
  checker_.check(false);
}

}  // namespace tarry::desktop
