#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace tarry::platform {

/// Modifier flag masks of key events.
inline constexpr std::uint64_t kFlagShift = 0x20000;
inline constexpr std::uint64_t kFlagControl = 0x40000;
inline constexpr std::uint64_t kFlagOption = 0x80000;
inline constexpr std::uint64_t kFlagCommand = 0x100000;

/// Key codes of the physical keys the guard knows.
inline constexpr std::int64_t kKeyQ = 12;
inline constexpr std::int64_t kKeyW = 13;
inline constexpr std::int64_t kKeyZ = 6;
/// The key that types "t" (posted, never guarded: Ctrl+Shift+T reopens a browser's last session).
inline constexpr std::int64_t kKeyT = 17;

/// The value in `userData` that marks key events this program posted itself.
inline constexpr std::int64_t kOwnEventMarker = 0x5459;

enum class EventType {
  keyDown,
  keyUp,
  flagsChanged,
  tapDisabledByTimeout,
  tapDisabledByUserInput,
  other,
};

/// One event seen by the tap, or one to post.
struct KeyEvent {
  EventType type = EventType::keyDown;
  std::int64_t keyCode = 0;
  bool autorepeat = false;
  std::uint64_t flags = 0;
  /// Up to 4 UTF-16 units the key types with the current modifiers (may be empty).
  std::u16string text;
  /// What the key types with all modifiers cleared; nothing when that could not be obtained.
  std::optional<std::u16string> unmodifiedText;
  /// The event source's user-data field; `kOwnEventMarker` on events this program posted.
  std::int64_t userData = 0;
};

enum class TapVerdict { pass, swallow };

/// An installed event tap; destroying it removes the tap.
class TapHandle {
 public:
  TapHandle() = default;
  TapHandle(const TapHandle&) = delete;
  TapHandle& operator=(const TapHandle&) = delete;
  virtual ~TapHandle() = default;

  /// Enables the tap (after creation, and again after the system disabled it).
  virtual void enable() = 0;
};

/// Session-wide keyboard observation and key posting.
class EventTap {
 public:
  using Callback = std::function<TapVerdict(const KeyEvent&)>;

  EventTap() = default;
  EventTap(const EventTap&) = delete;
  EventTap& operator=(const EventTap&) = delete;
  virtual ~EventTap() = default;

  /// True when the process may observe the session's input at all.
  [[nodiscard]] virtual bool isTrusted() = 0;
  /// Creates an active tap for key-down, key-up and flags-changed events whose callback runs on
  /// the main loop; nothing on failure (see `lastError`). The tap starts disabled.
  [[nodiscard]] virtual std::unique_ptr<TapHandle> create(Callback callback) = 0;
  /// Why the last `isTrusted` or `create` failed, for the log; empty when nothing failed.
  [[nodiscard]] virtual std::string lastError() const = 0;
  /// True when the listen-event (input monitoring) permission is already granted.
  [[nodiscard]] virtual bool listenAccessGranted() = 0;
  /// Asks the user for the listen-event permission.
  virtual void requestListenAccess() = 0;
  /// Posts a synthesised key event at the session level.
  virtual void post(const KeyEvent& event) = 0;
  /// Why a tap that is in place cannot see the guarded keys now (the display connection was lost,
  /// another program took a combination when the keys were grabbed anew), in words for the user;
  /// empty while it works.
  [[nodiscard]] virtual std::string problem() const { return {}; }
};

}  // namespace tarry::platform
