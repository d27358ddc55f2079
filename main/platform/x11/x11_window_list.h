#pragma once

#include "platform/window_list.h"
#include "platform/x11/x11_display.h"

namespace tarry::platform::x11 {

/// Top-level windows of an X11 session with an EWMH window manager. Geometry is the frame's (the
/// client area grown by `_NET_FRAME_EXTENTS`), as the user sees the window on screen.
class X11WindowList final : public WindowList {
 public:
  explicit X11WindowList(X11Display& display) : display_(display) {}

  /// The process's normal windows from `_NET_CLIENT_LIST_STACKING`, topmost first.
  [[nodiscard]] std::vector<WindowInfo> windowsOf(std::int32_t pid) override;
  /// Minimizes with WM_CHANGE_STATE; otherwise restores (activation) when minimized and moves and
  /// resizes with `_NET_MOVERESIZE_WINDOW`. False when the window does not exist.
  bool setFrame(std::uint32_t id, double x, double y, double width, double height, bool minimized) override;

 private:
  struct Extents {
    std::int32_t left = 0, right = 0, top = 0, bottom = 0;
  };
  [[nodiscard]] Extents extentsOf(xcb_window_t window) const;

  X11Display& display_;
};

}  // namespace tarry::platform::x11
