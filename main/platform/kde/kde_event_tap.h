#pragma once

#include "platform/event_tap.h"
#include "platform/main_loop.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace tarry::platform::kde {

/// One combination the tap asks KWin's global shortcuts for.
struct KdeShortcut {
  /// The action's name in the program's KGlobalAccel component ("quit").
  std::string action;
  /// The combination as the user reads it ("Ctrl+Q").
  std::string name;
  /// The combination as a Qt key code (modifier bits | key), as KGlobalAccel takes it.
  int qtKey = 0;
  std::int64_t keyCode = 0;
  std::uint64_t flags = 0;
  std::u16string text;
  char16_t unmodified = 0;
  /// The evdev code of the key, for typing it back.
  std::uint32_t evdevCode = 0;
};

/// The guarded combinations and the undo hot key.
[[nodiscard]] const std::vector<KdeShortcut>& kdeShortcuts();
/// The KGlobalAccel action id of a shortcut: component, action, and their names for the user.
[[nodiscard]] std::vector<std::string> kdeActionId(const KdeShortcut& shortcut);

/// The event tap on KDE Plasma (Wayland): the guarded combinations are global shortcuts of the
/// program's own KGlobalAccel component, which lives inside KWin (`org.kde.kglobalaccel`).
///
/// KWin keeps a shortcut's key from the application and reports its press and release
/// (`globalShortcutPressed` / `globalShortcutReleased`); releasing Ctrl first releases the
/// shortcut at once. Auto-repeat presses again while the key is held: those are dropped until the
/// release. "Pass" sets the shortcut inactive, types the key again through KWin's fake input (the
/// physical keys are still down, so the key goes up and down once more) and arms the shortcut
/// again. KWin offers fake input only to a program whose desktop file declares it; without it a
/// let-through Ctrl+W or Ctrl+Shift+Q closes the focused window politely instead (`closeWindow`),
/// and `problem` says so.
///
/// A shortcut outlives the program that set it (KWin keeps swallowing the key), so the shortcuts
/// are set inactive when the tap ends; a small helper process does it also when this program dies
/// without ending it (kill -9), and opening the tap clears leftovers of an earlier run.
/// "Trusted" means KGlobalAccel is on the session bus. A combination that another component
/// already owns is not guarded, and `problem` names it.
class KdeEventTap final : public EventTap {
 public:
  /// `closeWindow` closes the focused window politely (the fallback for a let-through Ctrl+W or
  /// Ctrl+Shift+Q without fake input).
  KdeEventTap(MainLoop& loop, std::function<void()> closeWindow);
  ~KdeEventTap() override;

  [[nodiscard]] bool isTrusted() override;
  [[nodiscard]] std::unique_ptr<TapHandle> create(Callback callback) override;
  [[nodiscard]] std::string lastError() const override;
  /// KWin asks for no permission: always granted.
  [[nodiscard]] bool listenAccessGranted() override { return true; }
  void requestListenAccess() override {}
  /// Types the key through KWin's fake input, with this program's shortcut of it set inactive.
  void post(const KeyEvent& event) override;
  [[nodiscard]] std::string problem() const override;

  class Session;

 private:
  MainLoop& loop_;
  std::function<void()> closeWindow_;
  std::shared_ptr<Session> session_;
  std::string lastError_;
};

}  // namespace tarry::platform::kde
