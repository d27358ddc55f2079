#include "platform/x11/x11_window_list.h"
#include "platform/x11/xcb_reply.h"

#include <cmath>
#include <cstdlib>
#include <memory>

namespace tarry::platform::x11 {
namespace {

constexpr std::uint32_t kIconicState = 3;
constexpr std::uint32_t kSourcePager = 2;
constexpr std::uint32_t kGravityNorthWest = 1;

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
  std::vector<xcb_window_t> windows =
      stacking ? std::vector<xcb_window_t>(stacking->rbegin(), stacking->rend()) : display_.clients();
  for (const xcb_window_t w : windows) {
    if (display_.pidOf(w) != pid || !display_.hasType(w, atoms.netWmWindowTypeNormal)) continue;
    XPtr<xcb_get_geometry_reply_t> geometry(xcb_get_geometry_reply(c, xcb_get_geometry(c, w), nullptr));
    XPtr<xcb_translate_coordinates_reply_t> origin(
        xcb_translate_coordinates_reply(c, xcb_translate_coordinates(c, w, display_.root(), 0, 0), nullptr));
    if (!geometry || !origin) continue;  // gone meanwhile
    const Extents e = extentsOf(w);
    WindowInfo info;
    info.id = w;
    info.title = display_.title(w);
    info.x = origin->dst_x - e.left;
    info.y = origin->dst_y - e.top;
    info.width = geometry->width + e.left + e.right;
    info.height = geometry->height + e.top + e.bottom;
    info.minimized = display_.hasState(w, atoms.netWmStateHidden);
    out.push_back(std::move(info));
  }
  return out;
}

bool X11WindowList::setFrame(std::uint32_t id, double x, double y, double width, double height, bool minimized) {
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
                        static_cast<std::uint32_t>(iy), static_cast<std::uint32_t>(cw), static_cast<std::uint32_t>(ch));
    return true;
  }
  const std::uint32_t values[] = {static_cast<std::uint32_t>(ix), static_cast<std::uint32_t>(iy),
                                  static_cast<std::uint32_t>(cw), static_cast<std::uint32_t>(ch)};
  xcb_configure_window(c, id,
                       XCB_CONFIG_WINDOW_X | XCB_CONFIG_WINDOW_Y | XCB_CONFIG_WINDOW_WIDTH | XCB_CONFIG_WINDOW_HEIGHT,
                       values);
  xcb_flush(c);
  return true;
}

}  // namespace tarry::platform::x11
