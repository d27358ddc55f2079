#pragma once

#include "platform/event_tap.h"
#include "platform/gnome/gnome_shell.h"

#include <memory>
#include <optional>
#include <string>

namespace tarry::platform::gnome {

/// The key event of the extension's `Key` signal for a combination ("quit", "close", "logout",
/// "undo"); nothing for a word this program does not know.
[[nodiscard]] std::optional<KeyEvent> keyEventOfWord(const std::string& word, bool down);
/// This program's modifier flags for the extension's modifier mask (Clutter's bits).
[[nodiscard]] std::uint64_t flagsOfMask(std::uint32_t mask);
/// The word the extension types for a posted key event; empty for keys it cannot type.
[[nodiscard]] std::string wordOfPosted(const KeyEvent& event);
/// What the log and the guard's state say while the extension is not running.
[[nodiscard]] std::string extensionMissingText();

/// The event tap on GNOME (Wayland), through Tarry's Shell extension.
///
/// The extension grabs the guarded combinations in the Shell while this program owns its bus
/// name ("arming"), reports each press and its release (the Shell keeps the keyboard in a modal
/// grab while a combination is held, so releasing Ctrl first is reported at once), and types a
/// combination back when asked: a grabbed key never reaches the app, so "pass" means typing it
/// again. The extension types at the key's release, when a virtual key is no longer dropped.
///
/// Trusted = the extension runs and speaks this program's protocol. When it goes away the tap
/// reports itself disabled; `enable` arms it again once it is back.
class GnomeEventTap final : public EventTap {
 public:
  explicit GnomeEventTap(GnomeShell& shell);
  ~GnomeEventTap() override;

  [[nodiscard]] bool isTrusted() override;
  [[nodiscard]] std::unique_ptr<TapHandle> create(Callback callback) override;
  [[nodiscard]] std::string lastError() const override { return lastError_; }
  /// The Shell asks for no permission of its own: always granted.
  [[nodiscard]] bool listenAccessGranted() override { return true; }
  void requestListenAccess() override {}
  /// Has the extension type the combination into the focused app (at the key's release when the
  /// key is still down).
  void post(const KeyEvent& event) override;
  [[nodiscard]] std::string problem() const override { return problem_; }

  /// What to tell while the extension is not running (it was just installed, the user switched it
  /// off); `extensionMissingText()` when empty.
  void setMissingText(std::string text) { missingText_ = std::move(text); }
  /// The longest the Shell keeps the keyboard for one held combination. A change reaches an
  /// extension already greeted at once, else with the greeting.
  void setHoldLimit(double seconds);

  class Session;

 private:
  bool arm();
  [[nodiscard]] std::uint32_t holdLimitMs() const;

  GnomeShell& shell_;
  std::shared_ptr<Session> session_;
  std::string lastError_;
  std::string problem_;
  double holdLimitSec_ = 16;
  std::string missingText_;
};

}  // namespace tarry::platform::gnome
