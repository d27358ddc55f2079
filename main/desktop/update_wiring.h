#pragma once

#include "guard/hud_display.h"
#include "platform/alerts.h"
#include "platform/defaults_store.h"
#include "platform/http.h"
#include "platform/linux/linux_file_system.h"
#include "platform/linux/linux_update_target.h"
#include "platform/linux/sodium_digest.h"
#include "platform/main_loop.h"
#include "platform/qt/qt_alerts.h"
#include "platform/qt/qt_downloader.h"
#include "platform/qt/qt_progress_window.h"
#include "settings/tunables.h"
#include "update/installer.h"
#include "update/update_checker.h"

#include <functional>
#include <memory>
#include <string>

namespace tarry::desktop {

struct DesktopUpdatesDeps {
  platform::MainLoop& loop;
  platform::Http& http;
  platform::DefaultsStore& store;
  const settings::Tunables& tunables;
  guard::HudDisplay& hud;
  std::function<void(std::string_view name, std::int64_t amount)> count;
  std::function<void(std::string line)> log;
  /// Ends the program once an installed update runs (flush, lift the grabs, quit the loop).
  std::function<void()> quit;
  /// True on a metered network; empty: never metered.
  std::function<bool()> metered;
  /// True while a hold runs or the HUD is on screen: an automatic offer waits; empty: never.
  std::function<bool()> busy;
  platform::Icon icon;
  /// The maker's server; empty: settings::serverBaseURL().
  std::string serverURL;
  /// Overrides for tests: the running version, the signing key (hex), alerts, the install target.
  std::string version = TARRY_VERSION;
  std::string publicKeyHex;
  platform::Alerts* alerts = nullptr;
  platform::UpdateTarget* target = nullptr;
};

/// The update check and installer of the desktop program, over Qt and the real system.
/// Entry points: `check(true)` for "Check for Updates…", `startAutomaticChecks()` from the launch
/// sequence, `noteBlockedQuit()` after a blocked quit.
class DesktopUpdates final {
 public:
  explicit DesktopUpdates(DesktopUpdatesDeps deps);

  void check(bool manual) { checker_.check(manual); }
  /// The first automatic check after `firstCheckDelaySec`, then one every `pingMinutes`; none
  /// while `updateChecksPaused`.
  void startAutomaticChecks();
  void noteBlockedQuit() { checker_.noteBlockedQuit(); }
  /// The instance lock's descriptor, which a relaunched new copy inherits.
  void handOnLock(int descriptor) { linuxTarget_.handOnLock(descriptor); }

  [[nodiscard]] update::UpdateChecker& checker() { return checker_; }
  [[nodiscard]] update::Installer& installer() { return installer_; }

  /// The signing key compiled in (TARRY_UPDATE_PUBLIC_KEY, 64 hex digits); empty when none.
  [[nodiscard]] static std::string builtInKeyHex();

 private:
  void automaticCheck();

  DesktopUpdatesDeps deps_;
  platform::qt::QtDownloader downloader_;
  platform::qt::QtProgressWindow progress_;
  platform::qt::QtAlerts qtAlerts_;
  platform::os::SodiumDigest digest_;
  platform::os::LinuxUpdateTarget linuxTarget_;
  platform::os::LinuxFileSystem files_;
  update::Installer installer_;
  update::UpdateChecker checker_;
  platform::Scheduled first_;
  platform::Scheduled repeat_;
  platform::Scheduled debugRelaunch_;
};

}  // namespace tarry::desktop
