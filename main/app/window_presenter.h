#pragma once

#include "platform/main_loop.h"
#include "settings/tunables.h"

#include <functional>
#include <limits>

namespace tarry::app {

/// Brings the program's windows forward and decides whether a reopen request (Tarry launched
/// again from the application menu) should open Settings. It keeps two stamps on the monotonic
/// clock: the time before which reopen requests are ignored, and the time of its own last
/// activation.
class WindowPresenter final {
 public:
  WindowPresenter(platform::MainLoop& loop, const settings::Tunables& tunables) : loop_(loop), tunables_(tunables) {}
  WindowPresenter(const WindowPresenter&) = delete;
  WindowPresenter& operator=(const WindowPresenter&) = delete;

  /// Stamps the activation, then runs `show`, which raises the window and asks the window manager
  /// to focus it (the view's `present`).
  void bringForward(const std::function<void()>& show);
  /// A window of the program closed: the reopen the desktop may send for that is ignored for
  /// `dockSettleSec`.
  void windowClosed();
  /// Whether a reopen request should open the Settings window now: not while a modal alert is up,
  /// not before the ignore stamp, and not within `reopenIgnoreSec` of the last own activation.
  [[nodiscard]] bool shouldOpenOnReopen(bool modalUp) const;

  static constexpr double kDistantPast = -std::numeric_limits<double>::infinity();
  /// Reopen requests before this uptime are ignored.
  double ignoreUntil = kDistantPast;
  /// Uptime of the presenter's last own activation.
  double lastActivation = kDistantPast;

 private:
  platform::MainLoop& loop_;
  const settings::Tunables& tunables_;
};

}  // namespace tarry::app
