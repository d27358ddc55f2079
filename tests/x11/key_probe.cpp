#include "key_probe.h"

#include <xcb/xtest.h>

#include <cstdlib>

namespace tarry::test {

KeyProbe::KeyProbe(const std::string& display) : connection_(xcb_connect(display.c_str(), nullptr)) {
  const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(connection_)).data;
  window_ = xcb_generate_id(connection_);
  const std::uint32_t mask = XCB_EVENT_MASK_KEY_PRESS | XCB_EVENT_MASK_KEY_RELEASE | XCB_EVENT_MASK_STRUCTURE_NOTIFY;
  xcb_create_window(connection_, XCB_COPY_FROM_PARENT, window_, screen->root, 10, 10, 200, 100, 0,
                    XCB_WINDOW_CLASS_INPUT_OUTPUT, screen->root_visual, XCB_CW_EVENT_MASK, &mask);
  xcb_map_window(connection_, window_);
  xcb_flush(connection_);
  // Wait for the map, then take the focus (the tests run without a window manager).
  for (;;) {
    xcb_generic_event_t* event = xcb_wait_for_event(connection_);
    if (!event) break;
    const bool mapped = (event->response_type & 0x7F) == XCB_MAP_NOTIFY;
    std::free(event);
    if (mapped) break;
  }
  xcb_set_input_focus(connection_, XCB_INPUT_FOCUS_POINTER_ROOT, window_, XCB_CURRENT_TIME);
  std::free(xcb_get_input_focus_reply(connection_, xcb_get_input_focus(connection_), nullptr));
  reader_ = std::thread([this] {
    while (!stop_) {
      xcb_generic_event_t* event = xcb_wait_for_event(connection_);
      if (!event) return;
      const std::uint8_t type = event->response_type & 0x7F;
      if (type == XCB_KEY_PRESS || type == XCB_KEY_RELEASE) {
        const auto* key = reinterpret_cast<const xcb_key_press_event_t*>(event);
        std::lock_guard lock(mutex_);
        keys_.push_back(Key{type == XCB_KEY_PRESS, key->detail, key->state});
      }
      std::free(event);
    }
  });
}

KeyProbe::~KeyProbe() {
  stop_ = true;
  xcb_client_message_event_t message{};
  message.response_type = XCB_CLIENT_MESSAGE;
  message.format = 32;
  message.window = window_;
  xcb_send_event(connection_, 0, window_, XCB_EVENT_MASK_NO_EVENT, reinterpret_cast<const char*>(&message));
  xcb_flush(connection_);
  reader_.join();
  xcb_disconnect(connection_);
}

std::vector<KeyProbe::Key> KeyProbe::keys() const {
  std::lock_guard lock(mutex_);
  return keys_;
}

int KeyProbe::presses(xcb_keycode_t keycode) const {
  std::lock_guard lock(mutex_);
  int n = 0;
  for (const Key& key : keys_) n += key.press && key.keycode == keycode;
  return n;
}

Keyboard::Keyboard(const std::string& display) : connection_(xcb_connect(display.c_str(), nullptr)) {}

Keyboard::~Keyboard() { xcb_disconnect(connection_); }

void Keyboard::press(xcb_keycode_t keycode) {
  xcb_test_fake_input(connection_, XCB_KEY_PRESS, keycode, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
  sync();
}

void Keyboard::release(xcb_keycode_t keycode) {
  xcb_test_fake_input(connection_, XCB_KEY_RELEASE, keycode, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
  sync();
}

void Keyboard::tap(std::initializer_list<xcb_keycode_t> keys) {
  for (const xcb_keycode_t key : keys) press(key);
  for (auto it = std::rbegin(keys); it != std::rend(keys); ++it) release(*it);
}

void Keyboard::sync() {
  std::free(xcb_get_input_focus_reply(connection_, xcb_get_input_focus(connection_), nullptr));
}

}  // namespace tarry::test
