#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace tarry::platform::wayland {

/// A keyboard of this program's own on the compositor (the virtual-keyboard protocol), which
/// types into the focused application. Its keymap comes from xkbcommon with the session's
/// defaults (`XKB_DEFAULT_*`, else the system's).
class VirtualKeyboard final {
 public:
  /// Connects to `$WAYLAND_DISPLAY`; nothing (and `error` says why) when the compositor does not
  /// offer the protocol.
  [[nodiscard]] static std::unique_ptr<VirtualKeyboard> open(std::string& error);
  ~VirtualKeyboard();
  VirtualKeyboard(const VirtualKeyboard&) = delete;
  VirtualKeyboard& operator=(const VirtualKeyboard&) = delete;

  /// Presses or releases the key that types `keysym` with the modifiers of `flags` (the program's
  /// flag masks) held by this keyboard. Returns once the compositor has handled it; false when
  /// the keymap has no such key or the connection is gone.
  bool key(std::uint32_t keysym, std::uint64_t flags, bool press);

  struct Impl;

 private:
  explicit VirtualKeyboard(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace tarry::platform::wayland
