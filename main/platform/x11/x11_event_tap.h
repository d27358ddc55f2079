#pragma once

#include "platform/event_tap.h"
#include "platform/main_loop.h"
#include "platform/x11/x11_keymap.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace tarry::platform::x11 {

/// The event tap on an X11 session.
///
/// Passive grabs on the root window catch the guarded combinations (see `Keymap::grabs`) in
/// asynchronous mode: the server never freezes the keyboard for this program, and it ends the grab
/// a press activated when that key goes up, so no state of this process (stuck, stopped by
/// SIGSTOP or a debugger, frozen with its cgroup) can hold the keyboard longer than the user holds
/// the key. Swallowing keeps the active grab, so the key-up and the modifier changes that follow
/// reach the tap. Passing ends the grab and types the key again with XTest, with this program's
/// grab on that key lifted around the injection.
///
/// A backend thread reads the X events and hands each one to the main loop. Should the main loop
/// not answer a press within `answerTimeout`, a watchdog thread lets it through itself, disables
/// the tap and reports `tapDisabledByTimeout`.
///
/// Posting uses XTest with this program's grab on that key lifted around the injection.
class X11EventTap final : public EventTap {
 public:
  struct Options {
    /// The display to open; empty means `$DISPLAY`.
    std::string display;
    /// Seconds a press may wait for the main loop before it is let through.
    double answerTimeout = 0.5;
  };

  explicit X11EventTap(MainLoop& loop);
  X11EventTap(MainLoop& loop, Options options);
  ~X11EventTap() override;

  /// True when the display is reachable and offers XKB and XTest.
  [[nodiscard]] bool isTrusted() override;
  /// Places the grabs; nothing when the display is unreachable or another client holds one of
  /// the combinations (`lastError` names it).
  [[nodiscard]] std::unique_ptr<TapHandle> create(Callback callback) override;
  [[nodiscard]] std::string lastError() const override;
  /// X11 has no input-monitoring permission: always granted.
  [[nodiscard]] bool listenAccessGranted() override { return true; }
  void requestListenAccess() override {}
  /// Key-downs and key-ups are injected with XTest; a post made inside the tap callback is held
  /// until the press being answered has been let go or swallowed.
  void post(const KeyEvent& event) override;
  /// The display connection broke, or the grabs made anew after a keymap change were refused.
  [[nodiscard]] std::string problem() const override;

  /// The grabs in place now (empty without a tap); for diagnostics and tests.
  [[nodiscard]] std::vector<KeyGrab> activeGrabs() const;
  /// How often the grabs were rebuilt after a keymap change.
  [[nodiscard]] int rebuildCount() const;

  class Session;

 private:
  MainLoop& loop_;
  Options options_;
  std::shared_ptr<Session> session_;
  std::string lastError_;
};

}  // namespace tarry::platform::x11
