#include "platform/x11/x11_window_list.h"
#include "platform/x11/xcb_reply.h"

#include <xcb/res.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>

namespace tarry::platform::x11 {
namespace {

constexpr std::uint32_t kIconicState = 3;
constexpr std::uint32_t kSourcePager = 2;
constexpr std::uint32_t kGravityNorthWest = 1;

/// The 32-bit items of a property reply; empty when absent.
std::vector<std::uint32_t> cardinalsOf(const XPtr<xcb_get_property_reply_t>& reply) {
  if (!reply || reply->type == XCB_NONE || reply->format != 32) return {};
  const auto* data = static_cast<const std::uint32_t*>(xcb_get_property_value(reply.get()));
  return {data, data + xcb_get_property_value_length(reply.get()) / 4};
}

/// A text property reply's bytes; nothing when absent.
std::optional<std::string> textOf(const XPtr<xcb_get_property_reply_t>& reply) {
  if (!reply || reply->type == XCB_NONE || reply->format != 8) return std::nullopt;
  std::string value(static_cast<const char*>(xcb_get_property_value(reply.get())),
                    static_cast<std::size_t>(xcb_get_property_value_length(reply.get())));
  while (!value.empty() && value.back() == '\0') value.pop_back();
  return value;
}

}  // namespace

X11WindowList::Extents X11WindowList::extentsOf(xcb_window_t window) const {
  Extents e;
  if (auto v = display_.cardinals(window, display_.atoms().netFrameExtents, 4); v && v->size() == 4) {
    e.left = static_cast<std::int32_t>((*v)[0]);
    e.right = static_cast<std::int32_t>((*v)[1]);
    e.top = static_cast<std::int32_t>((*v)[2]);
    e.bottom = static_cast<std::int32_t>((*v)[3]);
  }
  return e;
}

std::vector<WindowInfo> X11WindowList::windowsOf(std::int32_t pid) {
  std::vector<WindowInfo> out;
  if (pid <= 0) return out;
  const Atoms& atoms = display_.atoms();
  xcb_connection_t* c = display_.connection();
  auto stacking = display_.cardinals(display_.root(), atoms.netClientListStacking);
  const std::vector<xcb_window_t> clients =
      stacking ? std::vector<xcb_window_t>(stacking->rbegin(), stacking->rend()) : display_.clients();

  // NOTE: every request of a pass is sent before the first reply is read, so a capture costs one
  // round trip per pass (owner and type, then frame, title and state), not one per request.
  struct Owner {
    xcb_res_query_client_ids_cookie_t res{};
    xcb_get_property_cookie_t pid{};
    xcb_get_property_cookie_t type{};
  };
  const bool res = display_.hasRes();
  std::vector<Owner> owners(clients.size());
  for (std::size_t i = 0; i < clients.size(); ++i) {
    if (res) {
      xcb_res_client_id_spec_t spec{clients[i], XCB_RES_CLIENT_ID_MASK_LOCAL_CLIENT_PID};
      owners[i].res = xcb_res_query_client_ids(c, 1, &spec);
    }
    owners[i].pid = xcb_get_property(c, 0, clients[i], atoms.netWmPid, XCB_ATOM_CARDINAL, 0, 1);
    owners[i].type = xcb_get_property(c, 0, clients[i], atoms.netWmWindowType, XCB_ATOM_ATOM, 0, 32);
  }
  std::vector<xcb_window_t> mine;
  for (std::size_t i = 0; i < clients.size(); ++i) {
    std::int32_t owner = 0;
    if (res) {
      XPtr<xcb_res_query_client_ids_reply_t> reply(xcb_res_query_client_ids_reply(c, owners[i].res, nullptr));
      if (reply) {
        for (auto it = xcb_res_query_client_ids_ids_iterator(reply.get()); it.rem;
             xcb_res_client_id_value_next(&it)) {
          if ((it.data->spec.mask & XCB_RES_CLIENT_ID_MASK_LOCAL_CLIENT_PID) &&
              xcb_res_client_id_value_value_length(it.data) >= 1) {
            owner = static_cast<std::int32_t>(*xcb_res_client_id_value_value(it.data));
          }
        }
      }
    }
    const auto netPid =
        cardinalsOf(XPtr<xcb_get_property_reply_t>(xcb_get_property_reply(c, owners[i].pid, nullptr)));
    if (owner == 0 && !netPid.empty()) owner = static_cast<std::int32_t>(netPid[0]);
    const auto types =
        cardinalsOf(XPtr<xcb_get_property_reply_t>(xcb_get_property_reply(c, owners[i].type, nullptr)));
    const bool normal = types.empty() || types[0] == atoms.netWmWindowTypeNormal;
    if (owner == pid && normal) mine.push_back(clients[i]);
  }

  struct Frame {
    xcb_get_geometry_cookie_t geometry{};
    xcb_translate_coordinates_cookie_t origin{};
    xcb_get_property_cookie_t extents{};
    xcb_get_property_cookie_t netName{};
    xcb_get_property_cookie_t name{};
    xcb_get_property_cookie_t state{};
  };
  std::vector<Frame> frames(mine.size());
  for (std::size_t i = 0; i < mine.size(); ++i) {
    const xcb_window_t w = mine[i];
    frames[i].geometry = xcb_get_geometry(c, w);
    frames[i].origin = xcb_translate_coordinates(c, w, display_.root(), 0, 0);
    frames[i].extents = xcb_get_property(c, 0, w, atoms.netFrameExtents, XCB_ATOM_CARDINAL, 0, 4);
    frames[i].netName = xcb_get_property(c, 0, w, atoms.netWmName, XCB_GET_PROPERTY_TYPE_ANY, 0, 4096);
    frames[i].name = xcb_get_property(c, 0, w, XCB_ATOM_WM_NAME, XCB_GET_PROPERTY_TYPE_ANY, 0, 4096);
    frames[i].state = xcb_get_property(c, 0, w, atoms.netWmState, XCB_ATOM_ATOM, 0, 64);
  }
  for (std::size_t i = 0; i < mine.size(); ++i) {
    XPtr<xcb_get_geometry_reply_t> geometry(xcb_get_geometry_reply(c, frames[i].geometry, nullptr));
    XPtr<xcb_translate_coordinates_reply_t> origin(
        xcb_translate_coordinates_reply(c, frames[i].origin, nullptr));
    const auto extents =
        cardinalsOf(XPtr<xcb_get_property_reply_t>(xcb_get_property_reply(c, frames[i].extents, nullptr)));
    const auto netName =
        textOf(XPtr<xcb_get_property_reply_t>(xcb_get_property_reply(c, frames[i].netName, nullptr)));
    const auto name =
        textOf(XPtr<xcb_get_property_reply_t>(xcb_get_property_reply(c, frames[i].name, nullptr)));
    const auto states =
        cardinalsOf(XPtr<xcb_get_property_reply_t>(xcb_get_property_reply(c, frames[i].state, nullptr)));
    if (!geometry || !origin) continue;  // gone meanwhile
    Extents e;
    if (extents.size() == 4) {
      e.left = static_cast<std::int32_t>(extents[0]);
      e.right = static_cast<std::int32_t>(extents[1]);
      e.top = static_cast<std::int32_t>(extents[2]);
      e.bottom = static_cast<std::int32_t>(extents[3]);
    }
    WindowInfo info;
    info.id = mine[i];
    info.title = netName ? *netName : name.value_or("");
    info.x = origin->dst_x - e.left;
    info.y = origin->dst_y - e.top;
    info.width = geometry->width + e.left + e.right;
    info.height = geometry->height + e.top + e.bottom;
    info.minimized = std::find(states.begin(), states.end(), atoms.netWmStateHidden) != states.end();
    out.push_back(std::move(info));
  }
  return out;
}

bool X11WindowList::setFrame(std::uint32_t id, double x, double y, double width, double height,
                             bool minimized) {
  xcb_connection_t* c = display_.connection();
  const Atoms& atoms = display_.atoms();
  XPtr<xcb_get_geometry_reply_t> geometry(xcb_get_geometry_reply(c, xcb_get_geometry(c, id), nullptr));
  if (!geometry) return false;
  if (minimized) {
    // ICCCM: a request to iconify goes to the root window as WM_CHANGE_STATE.
    display_.sendToRoot(id, atoms.wmChangeState, kIconicState);
    return true;
  }
  if (display_.hasState(id, atoms.netWmStateHidden)) {
    display_.sendToRoot(id, atoms.netActiveWindow, kSourcePager, XCB_CURRENT_TIME, 0);
  }
  const Extents e = extentsOf(id);
  const auto ix = static_cast<std::int32_t>(std::lround(x));
  const auto iy = static_cast<std::int32_t>(std::lround(y));
  const auto cw = static_cast<std::int32_t>(std::max(1L, std::lround(width) - e.left - e.right));
  const auto ch = static_cast<std::int32_t>(std::max(1L, std::lround(height) - e.top - e.bottom));
  if (display_.supported(atoms.netMoveresizeWindow)) {
    // With north-west gravity the position is the frame's outer corner and the size the client's.
    const std::uint32_t flags = kGravityNorthWest | (0xFU << 8) | (kSourcePager << 12);
    display_.sendToRoot(id, atoms.netMoveresizeWindow, flags, static_cast<std::uint32_t>(ix),
                        static_cast<std::uint32_t>(iy), static_cast<std::uint32_t>(cw),
                        static_cast<std::uint32_t>(ch));
    return true;
  }
  const std::uint32_t values[] = {static_cast<std::uint32_t>(ix), static_cast<std::uint32_t>(iy),
                                  static_cast<std::uint32_t>(cw), static_cast<std::uint32_t>(ch)};
  xcb_configure_window(
      c, id, XCB_CONFIG_WINDOW_X | XCB_CONFIG_WINDOW_Y | XCB_CONFIG_WINDOW_WIDTH | XCB_CONFIG_WINDOW_HEIGHT,
      values);
  xcb_flush(c);
  return true;
}

}  // namespace tarry::platform::x11
