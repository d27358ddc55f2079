#pragma once

#include <xcb/xcb.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

struct xkb_context;
struct xkb_keymap;
struct xkb_state;

namespace tarry::platform::x11 {

/// One passive grab the tap needs: a key with an exact modifier mask.
struct KeyGrab {
  xcb_keycode_t keycode = 0;
  std::uint16_t modifiers = 0;
  /// The combination as a user would name it ("Ctrl+Shift+Q"), for error messages.
  std::string combination;

  friend bool operator==(const KeyGrab&, const KeyGrab&) = default;
};

/// The keyboard as X describes it at one moment: the XKB keymap of the core keyboard and the core
/// modifier mapping. Answers what a key types, which physical key it is, which modifiers a state
/// holds, and which keys the guard has to grab.
/// NOTE: immutable once loaded except for an internal scratch state behind a mutex, so it may be
/// shared between threads.
class Keymap final {
 public:
  /// First key code given to keys other than the physical Q, W and Z: `kOtherKeyBase` + X keycode.
  static constexpr std::int64_t kOtherKeyBase = 1000;

  /// Reads the current keymap of the core keyboard; null with `error` set when XKB refuses.
  /// NOTE: the connection must have set up the XKB extension (xkb_x11_setup_xkb_extension).
  [[nodiscard]] static std::unique_ptr<Keymap> load(xcb_connection_t* connection, std::string& error);
  ~Keymap();
  Keymap(const Keymap&) = delete;
  Keymap& operator=(const Keymap&) = delete;

  /// The program's code for a physical key: Q 12, W 13, Z 6, any other key `kOtherKeyBase` + keycode.
  [[nodiscard]] std::int64_t logicCode(xcb_keycode_t keycode) const;
  /// The X keycode of a program key code; nothing when no key has it.
  [[nodiscard]] std::optional<xcb_keycode_t> keycodeOf(std::int64_t logicCode) const;

  /// Event flags (Shift, Control, Option, Command) of a core modifier state: Ctrl reads as Command,
  /// Alt as Option, Super as Control.
  [[nodiscard]] std::uint64_t flags(std::uint16_t state) const;
  /// The core modifier mask a key sets (Shift, Control, Mod1 ...); 0 for keys that set none.
  [[nodiscard]] std::uint16_t modifierOf(xcb_keycode_t keycode) const;
  /// The first keycode that sets `mask`; 0 when none does.
  [[nodiscard]] xcb_keycode_t keycodeForModifier(std::uint16_t mask) const;

  /// What the key types in the event's state (modifiers and group bits 13-14), at most 4 UTF-16
  /// units. Ctrl is left out: it plays Command, which never changes the typed character.
  [[nodiscard]] std::u16string text(xcb_keycode_t keycode, std::uint16_t state) const;
  /// What the key types in the state's group with no modifiers.
  [[nodiscard]] std::u16string unmodifiedText(xcb_keycode_t keycode, std::uint16_t state) const;

  /// Every grab the tap needs under this keymap: the keys typing q, w or z in any layout of the
  /// keymap, plus the physical Q, W and Z keys where some layout types no ASCII character on them,
  /// with Ctrl (q, w), Ctrl+Shift (q) and Ctrl+Alt (z), each in every lock-key variant.
  [[nodiscard]] std::vector<KeyGrab> grabs() const;

  [[nodiscard]] std::uint16_t altMask() const { return alt_; }
  [[nodiscard]] std::uint16_t superMask() const { return super_; }
  [[nodiscard]] std::uint16_t numLockMask() const { return numLock_; }
  [[nodiscard]] std::uint16_t scrollLockMask() const { return scrollLock_; }

 private:
  Keymap() = default;
  std::u16string typed(xcb_keycode_t keycode, std::uint32_t mods, std::uint32_t group) const;

  xkb_context* context_ = nullptr;
  xkb_keymap* keymap_ = nullptr;
  mutable std::mutex stateMutex_;  // state_
  xkb_state* state_ = nullptr;

  xcb_keycode_t keyQ_ = 0;
  xcb_keycode_t keyW_ = 0;
  xcb_keycode_t keyZ_ = 0;
  std::uint16_t alt_ = 0;
  std::uint16_t super_ = 0;
  std::uint16_t numLock_ = 0;
  std::uint16_t scrollLock_ = 0;
  /// Core modifier mask per keycode.
  std::vector<std::uint16_t> modifierOf_ = std::vector<std::uint16_t>(256, 0);
};

/// UTF-8 to UTF-16, dropping malformed sequences.
[[nodiscard]] std::u16string utf16FromUtf8(const std::string& text);

}  // namespace tarry::platform::x11
