#pragma once

#include "platform/event_tap.h"
#include "platform/main_loop.h"

#include <memory>
#include <string>
#include <vector>

namespace tarry::platform::wayland {

/// One combination the tap asks the compositor for.
struct SwayCombination {
  /// The word in the bindings' `nop` commands ("quit").
  std::string word;
  /// The key combination in the compositor's syntax ("Ctrl+Shift+q").
  std::string keys;
  std::int64_t keyCode = 0;
  std::uint64_t flags = 0;
  /// The keysym of the key and the text it types with these modifiers.
  std::uint32_t keysym = 0;
  std::u16string text;
};

/// The guarded combinations and the undo hot key.
[[nodiscard]] const std::vector<SwayCombination>& swayCombinations();
/// The commands that bind every combination (press and release) to `nop` commands saying what
/// fired, and those that remove the press bindings.
/// NOTE: release bindings are never removed. sway 1.7 keeps a pointer to a release binding whose
/// keys are down and crashes when that binding is removed (or replaced) then: a program ending, or
/// killed, during a hold would take the session down. Left alone, a release binding is harmless:
/// without its press binding the press reaches the application, and so does the release.
[[nodiscard]] std::string swayBindCommands();
[[nodiscard]] std::string swayUnbindCommands();
[[nodiscard]] std::optional<KeyEvent> keyEventOfBinding(const std::string& command);

/// The event tap on sway and compositors that speak its IPC (`$SWAYSOCK`).
///
/// The compositor catches the guarded combinations for the program: a `--no-repeat` binding for
/// the press and a `--release` binding for the release, both running `nop` commands, which the
/// IPC reports as `binding` events. A binding always keeps its key from the application, so
/// "pass" types the combination again through this program's virtual keyboard, with the press
/// binding lifted around it. While a swallowed key is held, a `KeyboardWatch` follows the
/// modifiers: releasing Ctrl (or Shift) before the key gives a flags-changed event at once (sway
/// has no event for it; its release binding fires only when the key goes up).
///
/// The press bindings are removed when the tap ends; a small helper process removes them also
/// when this program dies without ending it (kill -9), and every start removes leftovers first.
/// "Trusted" means the socket answers; a lost socket disables the tap, and `enable` binds again.
/// A configuration reload (which drops bindings made over the IPC) is followed by binding again.
class SwayEventTap final : public EventTap {
 public:
  explicit SwayEventTap(MainLoop& loop, std::string socketPath = {});
  ~SwayEventTap() override;

  [[nodiscard]] bool isTrusted() override;
  [[nodiscard]] std::unique_ptr<TapHandle> create(Callback callback) override;
  [[nodiscard]] std::string lastError() const override;
  /// The compositor asks for no permission: always granted.
  [[nodiscard]] bool listenAccessGranted() override { return true; }
  void requestListenAccess() override {}
  /// Types the key through the virtual keyboard, lifting this program's own binding of it.
  void post(const KeyEvent& event) override;

  class Session;

 private:
  MainLoop& loop_;
  std::string socketPath_;
  std::shared_ptr<Session> session_;
  std::string lastError_;
};

}  // namespace tarry::platform::wayland
