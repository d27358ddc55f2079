#include "platform/qt/qt_window_raise.h"

#include <QtGui/qguiapplication_platform.h>
#include <QGuiApplication>
#include <QScreen>
#include <QWidget>

#include <xcb/xcb.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

namespace tarry::platform::qt {
namespace {

struct Disconnect {
  void operator()(xcb_connection_t* c) const { xcb_disconnect(c); }
};
using Connection = std::unique_ptr<xcb_connection_t, Disconnect>;

xcb_atom_t intern(xcb_connection_t* c, const char* name) {
  xcb_intern_atom_reply_t* reply = xcb_intern_atom_reply(
      c, xcb_intern_atom(c, 0, static_cast<std::uint16_t>(std::strlen(name)), name), nullptr);
  if (reply == nullptr) return XCB_ATOM_NONE;
  const xcb_atom_t atom = reply->atom;
  std::free(reply);
  return atom;
}

xcb_screen_t* firstScreen(xcb_connection_t* c, int screen) {
  xcb_screen_iterator_t it = xcb_setup_roots_iterator(xcb_get_setup(c));
  for (int i = 0; it.rem > 0 && i < screen; ++i) xcb_screen_next(&it);
  return it.rem > 0 ? it.data : nullptr;
}

/// Time of a zero-length property append on a window of our own: the server stamps the
/// PropertyNotify with its current time.
std::uint32_t serverTime(xcb_connection_t* c, xcb_screen_t* screen) {
  const xcb_window_t probe = xcb_generate_id(c);
  const std::uint32_t mask = XCB_EVENT_MASK_PROPERTY_CHANGE;
  xcb_create_window(c, XCB_COPY_FROM_PARENT, probe, screen->root, -1, -1, 1, 1, 0,
                    XCB_WINDOW_CLASS_INPUT_ONLY, XCB_COPY_FROM_PARENT, XCB_CW_EVENT_MASK, &mask);
  xcb_change_property(c, XCB_PROP_MODE_APPEND, probe, XCB_ATOM_WM_NAME, XCB_ATOM_STRING, 8, 0, nullptr);
  xcb_flush(c);
  std::uint32_t time = 0;
  while (xcb_generic_event_t* event = xcb_wait_for_event(c)) {
    const bool found = (event->response_type & 0x7F) == XCB_PROPERTY_NOTIFY;
    if (found) time = reinterpret_cast<xcb_property_notify_event_t*>(event)->time;
    std::free(event);
    if (found) break;
  }
  xcb_destroy_window(c, probe);
  return time;
}

std::uint32_t nextUserTime = 0;

}  // namespace

void useStartupId(const std::string& startupId) {
  const std::size_t at = startupId.rfind("_TIME");
  if (at == std::string::npos) return;
  const std::string digits = startupId.substr(at + 5);
  if (digits.empty() || digits.find_first_not_of("0123456789") != std::string::npos || digits.size() > 10)
    return;
  const unsigned long long time = std::stoull(digits);
  if (time > 0 && time <= 0xFFFFFFFFull) nextUserTime = static_cast<std::uint32_t>(time);
}

std::uint32_t xServerTime() {
  if (QGuiApplication::platformName() != QLatin1String("xcb")) return 0;
  int screenNumber = 0;
  Connection c(xcb_connect(nullptr, &screenNumber));
  if (!c || xcb_connection_has_error(c.get()) != 0) return 0;
  xcb_screen_t* screen = firstScreen(c.get(), screenNumber);
  return screen != nullptr ? serverTime(c.get(), screen) : 0;
}

void bringForward(QWidget* window, std::uint32_t userTime) {
  if (window == nullptr) return;
  if (!window->isVisible()) {
    // A window already on screen keeps its place; a new one opens in the middle of its screen.
    if (const QScreen* screen = window->screen()) {
      QRect frame = window->frameGeometry();
      frame.moveCenter(screen->availableGeometry().center());
      window->move(frame.topLeft());
    }
  }
  window->show();
  window->raise();
  window->activateWindow();
  if (QGuiApplication::platformName() != QLatin1String("xcb")) return;

  int screenNumber = 0;
  Connection c(xcb_connect(nullptr, &screenNumber));
  if (!c || xcb_connection_has_error(c.get()) != 0) return;
  xcb_screen_t* screen = firstScreen(c.get(), screenNumber);
  if (screen == nullptr) return;
  if (userTime == 0) userTime = std::exchange(nextUserTime, 0);
  const std::uint32_t time = userTime != 0 ? userTime : serverTime(c.get(), screen);
  const auto target = static_cast<xcb_window_t>(window->winId());
  // The map request must reach the server before the activation does.
  if (auto* x11 = qGuiApp->nativeInterface<QNativeInterface::QX11Application>()) xcb_flush(x11->connection());
  const xcb_atom_t userTimeAtom = intern(c.get(), "_NET_WM_USER_TIME");
  const xcb_atom_t activeAtom = intern(c.get(), "_NET_ACTIVE_WINDOW");
  if (userTimeAtom != XCB_ATOM_NONE) {
    xcb_change_property(c.get(), XCB_PROP_MODE_REPLACE, target, userTimeAtom, XCB_ATOM_CARDINAL, 32, 1,
                        &time);
  }
  if (activeAtom != XCB_ATOM_NONE) {
    xcb_client_message_event_t message{};
    message.response_type = XCB_CLIENT_MESSAGE;
    message.format = 32;
    message.window = target;
    message.type = activeAtom;
    message.data.data32[0] = 1;  // source indication: a normal application
    message.data.data32[1] = time;
    message.data.data32[2] = XCB_WINDOW_NONE;
    xcb_send_event(c.get(), 0, screen->root,
                   XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT | XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY,
                   reinterpret_cast<const char*>(&message));
  }
  xcb_flush(c.get());
}

}  // namespace tarry::platform::qt
