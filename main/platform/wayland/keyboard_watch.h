#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace tarry::platform::wayland {

/// Follows the modifier keys while a swallowed combination is held.
///
/// The compositor's bindings tell when a key goes down and up, but not when Ctrl goes up while
/// the key is still held. For that time the watch maps a transparent 1×1 overlay surface of the
/// layer shell that takes the keyboard (as an active grab does on X11): the compositor then sends
/// it the keyboard's modifier state, and every change of it. Keys typed meanwhile reach no
/// application. The application keeps its place as the focused window.
///
/// A thread of its own owns the Wayland connection; `start` and `stop` only ask it.
class KeyboardWatch final {
 public:
  /// Receives the modifiers held now, as the program's flag masks, on the watch's thread.
  using OnModifiers = std::function<void(std::uint64_t flags)>;

  /// Nothing when the compositor offers no layer shell (`error` says why).
  [[nodiscard]] static std::unique_ptr<KeyboardWatch> open(OnModifiers onModifiers, std::string& error);
  ~KeyboardWatch();
  KeyboardWatch(const KeyboardWatch&) = delete;
  KeyboardWatch& operator=(const KeyboardWatch&) = delete;

  /// Takes the keyboard (soon after: it does not wait); modifier changes are reported until `stop`.
  void start();
  /// Gives the keyboard back; returns once the compositor has handled it.
  void stop();

  struct Impl;

 private:
  explicit KeyboardWatch(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace tarry::platform::wayland
