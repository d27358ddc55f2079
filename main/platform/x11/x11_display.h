#pragma once

#include <xcb/xcb.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tarry::platform::x11 {

/// Connects to `display` (empty: `$DISPLAY`) and finds the root window of the screen it names;
/// null with `error` set when the display cannot be reached or lacks that screen.
[[nodiscard]] xcb_connection_t* connectToDisplay(const std::string& display, xcb_window_t& root, std::string& error);

/// The atoms the workspace and window backends read and send.
struct Atoms {
  xcb_atom_t utf8String = 0;
  xcb_atom_t netSupported = 0;
  xcb_atom_t netSupportingWmCheck = 0;
  xcb_atom_t netActiveWindow = 0;
  xcb_atom_t netClientList = 0;
  xcb_atom_t netClientListStacking = 0;
  xcb_atom_t netCloseWindow = 0;
  xcb_atom_t netMoveresizeWindow = 0;
  xcb_atom_t netWmName = 0;
  xcb_atom_t netWmPid = 0;
  xcb_atom_t netWmIcon = 0;
  xcb_atom_t netWmState = 0;
  xcb_atom_t netWmStateHidden = 0;
  xcb_atom_t netWmStateSkipTaskbar = 0;
  xcb_atom_t netWmWindowType = 0;
  xcb_atom_t netWmWindowTypeNormal = 0;
  xcb_atom_t netWmWindowTypeDialog = 0;
  xcb_atom_t netWmWindowTypeDesktop = 0;
  xcb_atom_t netWmWindowTypeDock = 0;
  xcb_atom_t netFrameExtents = 0;
  xcb_atom_t gtkApplicationId = 0;
  xcb_atom_t kdeDesktopFile = 0;
  xcb_atom_t wmProtocols = 0;
  xcb_atom_t wmDeleteWindow = 0;
  xcb_atom_t wmChangeState = 0;
  xcb_atom_t wmState = 0;
  xcb_atom_t wmClientLeader = 0;
};

/// One connection to the X display shared by the workspace and the window list, with the atoms
/// and property reads they need.
/// NOTE: xcb connections may be used from any thread; every helper here is a plain request and
/// reply, so the window list may call them from background threads.
class X11Display final {
 public:
  /// Opens `display` (empty: `$DISPLAY`); null with `error` set when it cannot be reached.
  [[nodiscard]] static std::unique_ptr<X11Display> open(const std::string& display, std::string& error);
  ~X11Display();
  X11Display(const X11Display&) = delete;
  X11Display& operator=(const X11Display&) = delete;

  [[nodiscard]] xcb_connection_t* connection() const { return connection_; }
  [[nodiscard]] xcb_window_t root() const { return root_; }
  [[nodiscard]] const Atoms& atoms() const { return atoms_; }
  /// True when the server offers the X-Resource extension (process ids of local clients).
  [[nodiscard]] bool hasRes() const { return hasRes_; }

  /// The 32-bit items of a property (CARDINAL, WINDOW, ATOM ...); nothing when it is absent.
  [[nodiscard]] std::optional<std::vector<std::uint32_t>> cardinals(xcb_window_t window, xcb_atom_t property,
                                                                    std::uint32_t maxItems = 1U << 20) const;
  /// A text property as bytes (UTF8_STRING, STRING); nothing when it is absent.
  [[nodiscard]] std::optional<std::string> text(xcb_window_t window, xcb_atom_t property) const;
  /// The process id of the client owning `window`: X-Resource for local clients, else `_NET_WM_PID`.
  [[nodiscard]] std::int32_t pidOf(xcb_window_t window) const;
  /// WM_CLASS as (instance, class).
  [[nodiscard]] std::pair<std::string, std::string> wmClass(xcb_window_t window) const;
  /// `_NET_WM_NAME`, else WM_NAME.
  [[nodiscard]] std::string title(xcb_window_t window) const;
  /// `_NET_CLIENT_LIST`, in mapping order.
  [[nodiscard]] std::vector<xcb_window_t> clients() const;
  /// True when `window` has `_NET_WM_WINDOW_TYPE` `type` (a normal window when `type` is normal
  /// and the property is absent, as EWMH says for managed windows without a transient parent).
  [[nodiscard]] bool hasType(xcb_window_t window, xcb_atom_t type) const;
  /// True when `_NET_WM_STATE` holds `state`.
  [[nodiscard]] bool hasState(xcb_window_t window, xcb_atom_t state) const;
  /// True when the window manager announces `atom` in `_NET_SUPPORTED`.
  [[nodiscard]] bool supported(xcb_atom_t atom) const;
  /// Sends an EWMH/ICCCM client message about `window` to the root window, as a pager would.
  void sendToRoot(xcb_window_t window, xcb_atom_t type, std::uint32_t d0, std::uint32_t d1 = 0, std::uint32_t d2 = 0,
                  std::uint32_t d3 = 0, std::uint32_t d4 = 0) const;
  /// Waits until the server has handled every request sent so far; false when the connection broke.
  bool sync() const;

 private:
  X11Display() = default;
  xcb_connection_t* connection_ = nullptr;
  xcb_window_t root_ = 0;
  Atoms atoms_;
  bool hasRes_ = false;
};

}  // namespace tarry::platform::x11
