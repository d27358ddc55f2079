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
/// fired, and those that remove them again.
[[nodiscard]] std::string swayBindCommands();
[[nodiscard]] std::string swayUnbindCommands();
/// The key event a `binding` event's command stands for; nothing when it is not one of ours.
[[nodiscard]] std::optional<KeyEvent> keyEventOfBinding(const std::string& command);

/// The event tap on sway and compositors that speak its IPC (`$SWAYSOCK`).
///
/// The compositor catches the guarded combinations for the program: a `--no-repeat` binding for
/// the press and a `--release` binding for the release, both running `nop` commands, which the
/// IPC reports as `binding` events. A binding always keeps its key from the application, so
/// "pass" types the combination again through this program's virtual keyboard, with the press
/// binding lifted around it. Only the press binding is lifted: the compositor keeps a pointer to
/// a release binding whose keys are held, and removing it then crashes sway 1.7.
///
/// The bindings are removed when the tap ends; a small helper process removes them also when
/// this program dies without ending it (kill -9), and every start removes leftovers first.
/// "Trusted" means the socket answers; a lost socket disables the tap, and `enable` binds again.
/// A configuration reload (which drops bindings made over the IPC) is followed by binding again.
/// NOTE: sway reports no event when Ctrl goes up while Q is still held; the release binding
/// fires when Q goes up, and the guard's hold ends then.
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
