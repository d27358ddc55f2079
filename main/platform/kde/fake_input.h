#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace tarry::platform::kde {

/// KWin's fake-input device (`org_kde_kwin_fake_input`), which presses keys as a physical keyboard
/// would, on the seat's own keymap and modifier state. KWin offers it only to programs whose
/// desktop file declares `X-KDE-Wayland-Interfaces=org_kde_kwin_fake_input` with an absolute Exec.
class FakeInput final {
 public:
  /// Connects to `$WAYLAND_DISPLAY`; nothing (and `error` says why) when KWin does not offer the
  /// protocol to this program.
  [[nodiscard]] static std::unique_ptr<FakeInput> open(std::string& error);
  ~FakeInput();
  FakeInput(const FakeInput&) = delete;
  FakeInput& operator=(const FakeInput&) = delete;

  /// Presses or releases the key of an evdev key code (`KEY_Q` = 16). Returns once KWin has
  /// handled it; false when the connection is gone.
  bool key(std::uint32_t evdevCode, bool press);

  struct Impl;

 private:
  explicit FakeInput(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace tarry::platform::kde
