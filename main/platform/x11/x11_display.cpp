#include "platform/x11/x11_display.h"
#include "platform/x11/xcb_reply.h"

#include <xcb/res.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace tarry::platform::x11 {

xcb_connection_t* connectToDisplay(const std::string& display, xcb_window_t& root, std::string& error) {
  int screenNumber = 0;
  xcb_connection_t* connection = xcb_connect(display.empty() ? nullptr : display.c_str(), &screenNumber);
  if (xcb_connection_has_error(connection)) {
    xcb_disconnect(connection);
    error = "cannot open the X display " + (display.empty() ? std::string("($DISPLAY)") : display);
    return nullptr;
  }
  xcb_screen_iterator_t screens = xcb_setup_roots_iterator(xcb_get_setup(connection));
  for (int i = 0; i < screenNumber && screens.rem; ++i) xcb_screen_next(&screens);
  if (!screens.rem) {
    xcb_disconnect(connection);
    error = "the X display has no screen";
    return nullptr;
  }
  root = screens.data->root;
  return connection;
}

std::unique_ptr<X11Display> X11Display::open(const std::string& display, std::string& error) {
  std::unique_ptr<X11Display> out(new X11Display());
  out->connection_ = connectToDisplay(display, out->root_, error);
  if (!out->connection_) return nullptr;

  Atoms& a = out->atoms_;
  const std::pair<xcb_atom_t*, const char*> names[] = {
      {&a.utf8String, "UTF8_STRING"},
      {&a.netSupported, "_NET_SUPPORTED"},
      {&a.netSupportingWmCheck, "_NET_SUPPORTING_WM_CHECK"},
      {&a.netActiveWindow, "_NET_ACTIVE_WINDOW"},
      {&a.netClientList, "_NET_CLIENT_LIST"},
      {&a.netClientListStacking, "_NET_CLIENT_LIST_STACKING"},
      {&a.netCloseWindow, "_NET_CLOSE_WINDOW"},
      {&a.netMoveresizeWindow, "_NET_MOVERESIZE_WINDOW"},
      {&a.netWmName, "_NET_WM_NAME"},
      {&a.netWmPid, "_NET_WM_PID"},
      {&a.netWmIcon, "_NET_WM_ICON"},
      {&a.netWmState, "_NET_WM_STATE"},
      {&a.netWmStateHidden, "_NET_WM_STATE_HIDDEN"},
      {&a.netWmStateSkipTaskbar, "_NET_WM_STATE_SKIP_TASKBAR"},
      {&a.netWmWindowType, "_NET_WM_WINDOW_TYPE"},
      {&a.netWmWindowTypeNormal, "_NET_WM_WINDOW_TYPE_NORMAL"},
      {&a.netWmWindowTypeDialog, "_NET_WM_WINDOW_TYPE_DIALOG"},
      {&a.netWmWindowTypeDesktop, "_NET_WM_WINDOW_TYPE_DESKTOP"},
      {&a.netWmWindowTypeDock, "_NET_WM_WINDOW_TYPE_DOCK"},
      {&a.netFrameExtents, "_NET_FRAME_EXTENTS"},
      {&a.gtkApplicationId, "_GTK_APPLICATION_ID"},
      {&a.kdeDesktopFile, "_KDE_NET_WM_DESKTOP_FILE"},
      {&a.wmProtocols, "WM_PROTOCOLS"},
      {&a.wmDeleteWindow, "WM_DELETE_WINDOW"},
      {&a.wmChangeState, "WM_CHANGE_STATE"},
      {&a.wmState, "WM_STATE"},
      {&a.wmClientLeader, "WM_CLIENT_LEADER"},
  };
  std::vector<xcb_intern_atom_cookie_t> cookies;
  for (const auto& [slot, name] : names) {
    cookies.push_back(xcb_intern_atom(out->connection_, 0, static_cast<std::uint16_t>(std::strlen(name)), name));
  }
  for (std::size_t i = 0; i < cookies.size(); ++i) {
    XPtr<xcb_intern_atom_reply_t> reply(xcb_intern_atom_reply(out->connection_, cookies[i], nullptr));
    if (!reply) {
      error = "the X display stopped answering";
      return nullptr;
    }
    *names[i].first = reply->atom;
  }

  const xcb_query_extension_reply_t* res = xcb_get_extension_data(out->connection_, &xcb_res_id);
  out->hasRes_ = res && res->present;
  return out;
}

X11Display::~X11Display() {
  if (connection_) xcb_disconnect(connection_);
}

std::optional<std::vector<std::uint32_t>> X11Display::cardinals(xcb_window_t window, xcb_atom_t property,
                                                                std::uint32_t maxItems) const {
  XPtr<xcb_get_property_reply_t> reply(xcb_get_property_reply(
      connection_, xcb_get_property(connection_, 0, window, property, XCB_GET_PROPERTY_TYPE_ANY, 0, maxItems),
      nullptr));
  if (!reply || reply->type == XCB_NONE || reply->format != 32) return std::nullopt;
  const auto* data = static_cast<const std::uint32_t*>(xcb_get_property_value(reply.get()));
  const int count = xcb_get_property_value_length(reply.get()) / 4;
  return std::vector<std::uint32_t>(data, data + count);
}

std::optional<std::string> X11Display::text(xcb_window_t window, xcb_atom_t property) const {
  XPtr<xcb_get_property_reply_t> reply(xcb_get_property_reply(
      connection_, xcb_get_property(connection_, 0, window, property, XCB_GET_PROPERTY_TYPE_ANY, 0, 4096), nullptr));
  if (!reply || reply->type == XCB_NONE || reply->format != 8) return std::nullopt;
  const auto* data = static_cast<const char*>(xcb_get_property_value(reply.get()));
  std::string value(data, static_cast<std::size_t>(xcb_get_property_value_length(reply.get())));
  // Some clients count the terminating NUL in the property.
  while (!value.empty() && value.back() == '\0') value.pop_back();
  return value;
}

std::int32_t X11Display::pidOf(xcb_window_t window) const {
  if (hasRes_) {
    // The server knows the peer process of local clients; _NET_WM_PID is only what the client says.
    xcb_res_client_id_spec_t client{window, XCB_RES_CLIENT_ID_MASK_LOCAL_CLIENT_PID};
    XPtr<xcb_res_query_client_ids_reply_t> reply(
        xcb_res_query_client_ids_reply(connection_, xcb_res_query_client_ids(connection_, 1, &client), nullptr));
    if (reply) {
      for (auto it = xcb_res_query_client_ids_ids_iterator(reply.get()); it.rem; xcb_res_client_id_value_next(&it)) {
        if ((it.data->spec.mask & XCB_RES_CLIENT_ID_MASK_LOCAL_CLIENT_PID) &&
            xcb_res_client_id_value_value_length(it.data) >= 1) {
          return static_cast<std::int32_t>(*xcb_res_client_id_value_value(it.data));
        }
      }
    }
  }
  const auto pid = cardinals(window, atoms_.netWmPid, 1);
  return pid && !pid->empty() ? static_cast<std::int32_t>((*pid)[0]) : 0;
}

std::pair<std::string, std::string> X11Display::wmClass(xcb_window_t window) const {
  const std::optional<std::string> raw = text(window, XCB_ATOM_WM_CLASS);
  if (!raw) return {};
  const std::size_t nul = raw->find('\0');
  if (nul == std::string::npos) return {*raw, {}};
  return {raw->substr(0, nul), raw->substr(nul + 1)};
}

std::string X11Display::title(xcb_window_t window) const {
  if (auto name = text(window, atoms_.netWmName)) return *name;
  return text(window, XCB_ATOM_WM_NAME).value_or("");
}

std::vector<xcb_window_t> X11Display::clients() const {
  const auto list = cardinals(root_, atoms_.netClientList);
  return list ? std::vector<xcb_window_t>(list->begin(), list->end()) : std::vector<xcb_window_t>{};
}

bool X11Display::hasType(xcb_window_t window, xcb_atom_t type) const {
  const auto types = cardinals(window, atoms_.netWmWindowType, 32);
  if (!types || types->empty()) return type == atoms_.netWmWindowTypeNormal;
  // The first type the window manager knows wins; all of ours are standard.
  return (*types)[0] == type;
}

bool X11Display::hasState(xcb_window_t window, xcb_atom_t state) const {
  const auto states = cardinals(window, atoms_.netWmState, 64);
  return states && std::find(states->begin(), states->end(), state) != states->end();
}

bool X11Display::supported(xcb_atom_t atom) const {
  const auto list = cardinals(root_, atoms_.netSupported, 4096);
  return list && std::find(list->begin(), list->end(), atom) != list->end();
}

void X11Display::sendToRoot(xcb_window_t window, xcb_atom_t type, std::uint32_t d0, std::uint32_t d1,
                            std::uint32_t d2, std::uint32_t d3, std::uint32_t d4) const {
  xcb_client_message_event_t message{};
  message.response_type = XCB_CLIENT_MESSAGE;
  message.format = 32;
  message.window = window;
  message.type = type;
  message.data.data32[0] = d0;
  message.data.data32[1] = d1;
  message.data.data32[2] = d2;
  message.data.data32[3] = d3;
  message.data.data32[4] = d4;
  xcb_send_event(connection_, 0, root_,
                 XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY | XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT,
                 reinterpret_cast<const char*>(&message));
  xcb_flush(connection_);
}

bool X11Display::sync() const {
  XPtr<xcb_get_input_focus_reply_t> reply(
      xcb_get_input_focus_reply(connection_, xcb_get_input_focus(connection_), nullptr));
  return reply != nullptr;
}

}  // namespace tarry::platform::x11
