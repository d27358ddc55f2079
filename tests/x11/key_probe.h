#pragma once

#include <xcb/xcb.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tarry::test {

/// A focused top-level window that records every key event it receives, standing in for the
/// application the user types into.
class KeyProbe final {
 public:
  struct Key {
    bool press = false;
    xcb_keycode_t keycode = 0;
    std::uint16_t state = 0;
  };

  explicit KeyProbe(const std::string& display);
  ~KeyProbe();
  KeyProbe(const KeyProbe&) = delete;
  KeyProbe& operator=(const KeyProbe&) = delete;

  [[nodiscard]] std::vector<Key> keys() const;
  /// Presses of `keycode` received so far.
  [[nodiscard]] int presses(xcb_keycode_t keycode) const;

 private:
  xcb_connection_t* connection_;
  xcb_window_t window_ = 0;
  mutable std::mutex mutex_;
  std::vector<Key> keys_;
  std::atomic<bool> stop_{false};
  std::thread reader_;
};

/// Fakes the user's keyboard through XTest on a connection of its own.
class Keyboard final {
 public:
  explicit Keyboard(const std::string& display);
  ~Keyboard();
  Keyboard(const Keyboard&) = delete;
  Keyboard& operator=(const Keyboard&) = delete;

  void press(xcb_keycode_t keycode);
  void release(xcb_keycode_t keycode);
  /// Presses the keys in order and releases them in reverse.
  void tap(std::initializer_list<xcb_keycode_t> keys);
  /// Waits until the server has handled everything sent so far.
  void sync();

 private:
  xcb_connection_t* connection_;
};

// Evdev keycodes of the keys the tests press.
inline constexpr xcb_keycode_t kCtrl = 37;
inline constexpr xcb_keycode_t kShift = 50;
inline constexpr xcb_keycode_t kAlt = 64;
inline constexpr xcb_keycode_t kQ = 24;
inline constexpr xcb_keycode_t kW = 25;
inline constexpr xcb_keycode_t kE = 26;
inline constexpr xcb_keycode_t kZ = 52;
inline constexpr xcb_keycode_t kX = 53;

}  // namespace tarry::test
