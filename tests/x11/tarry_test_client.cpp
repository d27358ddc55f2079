// tarry-test-client: a small X11 application for the backend and end-to-end tests. It owns
// windows with a chosen WM_CLASS, logs every key event it receives with the monotonic time, quits
// on Ctrl+Q and closes the focused window on Ctrl+W (read through the current keyboard layout), and
// closes windows on WM_DELETE_WINDOW; it exits once its last window is closed.
//
//   tarry-test-client [--class INSTANCE,CLASS] [--windows N] [--title TEXT] [--log FILE]
//                     [--type normal|dock|desktop] [--skip-taskbar] [--gtk-app-id ID]
//                     [--icon SIZE,SIZE,...] [--geometry WxH+X+Y] [--keep-running]
//                     [--grab-key KEYCODE,MODIFIERS] [--minimize N] [--refuse-close]
//
// --keep-running: Ctrl+Q is only logged (for checks that go on after it reached the client).
// --grab-key KEYCODE,MODIFIERS: holds a passive grab on that key on the root window.
// --geometry: the first window's; window n (from 1) is placed 30 px right and down of window n-1.
// --minimize N: window N (from 1) asks to be minimized once it is mapped.
// --refuse-close: close requests are refused, as by an app asking about unsaved work ("refuse").
//
// Log lines: "<monotonic µs> <what>", where what is "ready <window>...", "press|release <keycode>
// <state> <keysym>", "close <window>", "quit".
#include "platform/x11/xcb_xkb.h"

#include <xcb/xcb.h>
#include <xkbcommon/xkbcommon-x11.h>
#include <xkbcommon/xkbcommon.h>

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

std::FILE* logFile = nullptr;

long long monotonicMicros() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

void note(long long at, const std::string& what) {
  if (!logFile) return;
  std::fprintf(logFile, "%lld %s\n", at, what.c_str());
  std::fflush(logFile);
}

xcb_atom_t atom(xcb_connection_t* c, const char* name) {
  xcb_intern_atom_reply_t* r =
      xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, static_cast<std::uint16_t>(std::strlen(name)), name), nullptr);
  const xcb_atom_t a = r ? r->atom : XCB_NONE;
  std::free(r);
  return a;
}

struct Keyboard {
  xkb_context* context = xkb_context_new(XKB_CONTEXT_NO_FLAGS);
  xkb_keymap* keymap = nullptr;
  xkb_state* state = nullptr;

  void load(xcb_connection_t* c) {
    if (state) xkb_state_unref(state);
    if (keymap) xkb_keymap_unref(keymap);
    const std::int32_t device = xkb_x11_get_core_keyboard_device_id(c);
    keymap = xkb_x11_keymap_new_from_device(context, c, device, XKB_KEYMAP_COMPILE_NO_FLAGS);
    state = xkb_state_new(keymap);
  }
  xkb_keysym_t sym(xcb_keycode_t keycode, std::uint16_t modifiers) {
    xkb_state_update_mask(state, modifiers & 0xFFU, 0, 0, 0, 0, (modifiers >> 13) & 3U);
    return xkb_state_key_get_one_sym(state, keycode);
  }
};

}  // namespace

int main(int argc, char** argv) {
  std::string instance = "tarry-test-client";
  std::string wmClass = "TarryTestClient";
  int count = 1;
  std::string title = "Tarry test client";
  std::string type = "normal";
  bool skipTaskbar = false;
  bool keepRunning = false;
  bool refuseClose = false;
  int minimize = 0;
  int width = 400, height = 300, left = 40, top = 40;
  std::string gtkAppId;
  std::vector<std::uint32_t> iconSizes;
  int grabKeycode = 0;
  unsigned grabModifiers = 0;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const char* value = i + 1 < argc ? argv[i + 1] : "";
    if (arg == "--class") {
      const std::string v = value;
      const std::size_t comma = v.find(',');
      instance = v.substr(0, comma);
      wmClass = comma == std::string::npos ? v : v.substr(comma + 1);
      ++i;
    } else if (arg == "--windows") {
      count = std::max(1, std::atoi(value));
      ++i;
    } else if (arg == "--title") {
      title = value;
      ++i;
    } else if (arg == "--log") {
      logFile = std::fopen(value, "a");
      ++i;
    } else if (arg == "--type") {
      type = value;
      ++i;
    } else if (arg == "--geometry") {
      std::sscanf(value, "%dx%d+%d+%d", &width, &height, &left, &top);
      ++i;
    } else if (arg == "--grab-key") {
      std::sscanf(value, "%d,%u", &grabKeycode, &grabModifiers);
      ++i;
    } else if (arg == "--minimize") {
      minimize = std::atoi(value);
      ++i;
    } else if (arg == "--refuse-close") {
      refuseClose = true;
    } else if (arg == "--keep-running") {
      keepRunning = true;
    } else if (arg == "--skip-taskbar") {
      skipTaskbar = true;
    } else if (arg == "--gtk-app-id") {
      gtkAppId = value;
      ++i;
    } else if (arg == "--icon") {
      for (const char* p = value; *p;) {
        iconSizes.push_back(static_cast<std::uint32_t>(std::strtoul(p, nullptr, 10)));
        p = std::strchr(p, ',');
        if (!p) break;
        ++p;
      }
      ++i;
    } else {
      std::fprintf(stderr, "tarry-test-client: unknown option %s\n", arg.c_str());
      return 2;
    }
  }

  xcb_connection_t* c = xcb_connect(nullptr, nullptr);
  if (xcb_connection_has_error(c)) {
    std::fprintf(stderr, "tarry-test-client: cannot open the X display\n");
    return 1;
  }
  const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(c)).data;
  if (grabKeycode > 0) {
    // Like a desktop's own shortcut daemon holding a combination.
    xcb_grab_key(c, 0, screen->root, static_cast<std::uint16_t>(grabModifiers),
                 static_cast<xcb_keycode_t>(grabKeycode), XCB_GRAB_MODE_ASYNC, XCB_GRAB_MODE_ASYNC);
  }
  std::uint8_t xkbEvent = 0;
  xkb_x11_setup_xkb_extension(c, 1, 0, XKB_X11_SETUP_XKB_EXTENSION_NO_FLAGS, nullptr, nullptr, &xkbEvent, nullptr);
  Keyboard keyboard;
  keyboard.load(c);
  // Follow layout changes (setxkbmap) like any application.
  xcb_xkb_select_events(c, XCB_XKB_ID_USE_CORE_KBD,
                        XCB_XKB_EVENT_TYPE_NEW_KEYBOARD_NOTIFY | XCB_XKB_EVENT_TYPE_MAP_NOTIFY, 0,
                        XCB_XKB_EVENT_TYPE_NEW_KEYBOARD_NOTIFY | XCB_XKB_EVENT_TYPE_MAP_NOTIFY, 0xFF, 0xFF, nullptr);

  const xcb_atom_t utf8 = atom(c, "UTF8_STRING");
  const xcb_atom_t protocols = atom(c, "WM_PROTOCOLS");
  const xcb_atom_t deleteWindow = atom(c, "WM_DELETE_WINDOW");
  const xcb_atom_t pidAtom = atom(c, "_NET_WM_PID");
  const xcb_atom_t netName = atom(c, "_NET_WM_NAME");
  const xcb_atom_t windowType = atom(c, "_NET_WM_WINDOW_TYPE");
  const std::string typeName = type == "dock"      ? "_NET_WM_WINDOW_TYPE_DOCK"
                               : type == "desktop" ? "_NET_WM_WINDOW_TYPE_DESKTOP"
                                                   : "_NET_WM_WINDOW_TYPE_NORMAL";
  const xcb_atom_t typeAtom = atom(c, typeName.c_str());
  const xcb_atom_t wmState = atom(c, "_NET_WM_STATE");
  const xcb_atom_t skipAtom = atom(c, "_NET_WM_STATE_SKIP_TASKBAR");
  const xcb_atom_t gtkAtom = atom(c, "_GTK_APPLICATION_ID");
  const xcb_atom_t iconAtom = atom(c, "_NET_WM_ICON");
  const xcb_atom_t changeState = atom(c, "WM_CHANGE_STATE");

  std::vector<std::uint32_t> icon;
  for (const std::uint32_t side : iconSizes) {
    icon.push_back(side);
    icon.push_back(side);
    // A blue square with a white one inside, so it is recognisable in a screenshot.
    for (std::uint32_t y = 0; y < side; ++y) {
      for (std::uint32_t x = 0; x < side; ++x) {
        const bool inner = x >= side / 3 && x < 2 * side / 3 && y >= side / 3 && y < 2 * side / 3;
        icon.push_back(inner ? 0xFFFFFFFFU : 0xFF2F6FDEU);
      }
    }
  }
  std::string classValue = instance;
  classValue.push_back('\0');
  classValue += wmClass;
  classValue.push_back('\0');
  const std::uint32_t pid = static_cast<std::uint32_t>(getpid());

  std::vector<xcb_window_t> windows;
  for (int n = 0; n < count; ++n) {
    const xcb_window_t w = xcb_generate_id(c);
    const std::uint32_t values[] = {screen->white_pixel, XCB_EVENT_MASK_KEY_PRESS | XCB_EVENT_MASK_KEY_RELEASE |
                                                             XCB_EVENT_MASK_STRUCTURE_NOTIFY};
    xcb_create_window(c, XCB_COPY_FROM_PARENT, w, screen->root, static_cast<std::int16_t>(left + 30 * n),
                      static_cast<std::int16_t>(top + 30 * n), static_cast<std::uint16_t>(width),
                      static_cast<std::uint16_t>(height), 0,
                      XCB_WINDOW_CLASS_INPUT_OUTPUT, screen->root_visual, XCB_CW_BACK_PIXEL | XCB_CW_EVENT_MASK,
                      values);
    const std::string name = count == 1 ? title : title + " " + std::to_string(n + 1);
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, w, XCB_ATOM_WM_NAME, XCB_ATOM_STRING, 8,
                        static_cast<std::uint32_t>(name.size()), name.data());
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, w, netName, utf8, 8, static_cast<std::uint32_t>(name.size()),
                        name.data());
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, w, XCB_ATOM_WM_CLASS, XCB_ATOM_STRING, 8,
                        static_cast<std::uint32_t>(classValue.size()), classValue.data());
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, w, protocols, XCB_ATOM_ATOM, 32, 1, &deleteWindow);
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, w, pidAtom, XCB_ATOM_CARDINAL, 32, 1, &pid);
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, w, windowType, XCB_ATOM_ATOM, 32, 1, &typeAtom);
    if (skipTaskbar) xcb_change_property(c, XCB_PROP_MODE_REPLACE, w, wmState, XCB_ATOM_ATOM, 32, 1, &skipAtom);
    if (!gtkAppId.empty()) {
      xcb_change_property(c, XCB_PROP_MODE_REPLACE, w, gtkAtom, utf8, 8, static_cast<std::uint32_t>(gtkAppId.size()),
                          gtkAppId.data());
    }
    if (!icon.empty()) {
      xcb_change_property(c, XCB_PROP_MODE_REPLACE, w, iconAtom, XCB_ATOM_CARDINAL, 32,
                          static_cast<std::uint32_t>(icon.size()), icon.data());
    }
    xcb_map_window(c, w);
    windows.push_back(w);
  }
  xcb_flush(c);

  std::size_t mapped = 0;
  std::vector<xcb_window_t> open = windows;
  const auto close = [&](xcb_window_t w) {
    auto it = std::find(open.begin(), open.end(), w);
    if (it == open.end()) return;
    open.erase(it);
    xcb_destroy_window(c, w);
    xcb_flush(c);
    note(monotonicMicros(), "close " + std::to_string(w));
  };

  while (!open.empty()) {
    xcb_generic_event_t* event = xcb_wait_for_event(c);
    if (!event) break;
    const long long at = monotonicMicros();
    const std::uint8_t kind = event->response_type & 0x7F;
    if (kind == XCB_KEY_PRESS || kind == XCB_KEY_RELEASE) {
      const auto* key = reinterpret_cast<const xcb_key_press_event_t*>(event);
      const xkb_keysym_t sym = keyboard.sym(key->detail, key->state);
      char symName[64] = "none";
      xkb_keysym_get_name(sym, symName, sizeof symName);
      char line[160];
      std::snprintf(line, sizeof line, "%s %u 0x%x %s", kind == XCB_KEY_PRESS ? "press" : "release", key->detail,
                    key->state, symName);
      note(at, line);
      const std::uint16_t mods = key->state & (XCB_MOD_MASK_SHIFT | XCB_MOD_MASK_CONTROL | XCB_MOD_MASK_1 | XCB_MOD_MASK_4);
      const xkb_keysym_t lowerSym = xkb_keysym_to_lower(sym);
      if (kind == XCB_KEY_PRESS && mods == XCB_MOD_MASK_CONTROL && lowerSym == XKB_KEY_q && !keepRunning) {
        note(at, "quit");
        break;
      }
      if (kind == XCB_KEY_PRESS && mods == XCB_MOD_MASK_CONTROL && lowerSym == XKB_KEY_w) close(key->event);
    } else if (kind == XCB_MAP_NOTIFY) {
      const auto* map = reinterpret_cast<const xcb_map_notify_event_t*>(event);
      if (minimize >= 1 && minimize <= count &&
          map->window == windows[static_cast<std::size_t>(minimize - 1)]) {
        minimize = 0;  // once: a window restored later stays so
        // ICCCM: iconify by WM_CHANGE_STATE (IconicState) to the root window.
        xcb_client_message_event_t message{};
        message.response_type = XCB_CLIENT_MESSAGE;
        message.format = 32;
        message.window = map->window;
        message.type = changeState;
        message.data.data32[0] = 3;
        xcb_send_event(c, 0, screen->root,
                       XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY | XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT,
                       reinterpret_cast<const char*>(&message));
        xcb_flush(c);
      }
      if (++mapped == windows.size()) {
        std::string ready = "ready";
        for (const xcb_window_t w : windows) ready += " " + std::to_string(w);
        note(at, ready);
      }
    } else if (kind == XCB_CLIENT_MESSAGE) {
      const auto* message = reinterpret_cast<const xcb_client_message_event_t*>(event);
      if (message->type == protocols && message->data.data32[0] == deleteWindow) {
        if (refuseClose) {
          note(at, "refuse " + std::to_string(message->window));
        } else {
          close(message->window);
        }
      }
    } else if (kind == XCB_MAPPING_NOTIFY || (xkbEvent != 0 && kind == xkbEvent)) {
      keyboard.load(c);
    }
    std::free(event);
  }
  if (open.empty()) note(monotonicMicros(), "quit");
  xcb_disconnect(c);
  return 0;
}
