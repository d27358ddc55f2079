#pragma once

#include <cstdint>
#include <string>

class QWidget;

namespace tarry::platform::qt {

/// Shows `window` (centred on its screen the first time it appears) and asks the window manager to
/// give it focus. On X11 the request is a `_NET_ACTIVE_WINDOW` message from an application with a
/// fresh user timestamp (`userTime`, or the X server's current time when 0), and the window's
/// `_NET_WM_USER_TIME` is set to match: a request from a tray menu carries no X event of ours, so
/// the timestamp Qt remembers would be old and focus-stealing prevention would leave the window
/// behind the others.
void bringForward(QWidget* window, std::uint32_t userTime = 0);

/// The user timestamp a second launch brought in its startup id ("…_TIME<timestamp>", the
/// Startup Notification form that XDG_ACTIVATION_TOKEN also takes on X11); the next
/// `bringForward` without a time of its own uses it once. Ids without a time are ignored.
void useStartupId(const std::string& startupId);

/// The X server's current time, read from a property change on a private connection; 0 when no
/// X server answers.
[[nodiscard]] std::uint32_t xServerTime();

}  // namespace tarry::platform::qt
