#pragma once

#include "platform/activity.h"
#include "platform/desktop_entries.h"
#include "platform/event_tap.h"
#include "platform/hud_panel.h"
#include "platform/main_loop.h"
#include "platform/status_item.h"
#include "platform/window_list.h"
#include "platform/workspace.h"

#include <functional>
#include <memory>
#include <string>

namespace tarry::desktop {

/// The kind of graphical session the program runs in, from its environment.
struct Session {
  enum class Kind {
    none,          // neither a Wayland nor an X display
    x11,           // an X server: the X11 backends
    sway,          // sway or another compositor speaking its IPC ($SWAYSOCK)
    gnome,         // GNOME Shell on Wayland: Tarry's Shell extension
    kde,           // KDE Plasma on Wayland: KWin (when it is on the session bus)
    otherWayland,  // a Wayland compositor without a backend yet
  };
  Kind kind = Kind::none;
  /// The display ($DISPLAY / $WAYLAND_DISPLAY) and, for Wayland, the desktop's name.
  std::string display;
  std::string desktop;
};

/// Reads the session from `env` (getenv by default). A Wayland session wins over the X display
/// that its Xwayland offers: the X11 route would see only X clients' keys.
[[nodiscard]] Session detectSession(const std::function<const char*(const char*)>& env = {});

/// True when an `XDG_CURRENT_DESKTOP` list names GNOME ("GNOME", "ubuntu:GNOME", ...).
[[nodiscard]] bool namesGnome(const std::string& currentDesktop);
/// True when an `XDG_CURRENT_DESKTOP` list names KDE ("KDE", "ubuntu:KDE", ...).
[[nodiscard]] bool namesKde(const std::string& currentDesktop);

/// The guard's state text for a Wayland desktop without a backend.
[[nodiscard]] std::string unsupportedWaylandText(const std::string& desktop);

/// The desktop services of one session, owned together.
class SessionBackends {
 public:
  SessionBackends() = default;
  SessionBackends(const SessionBackends&) = delete;
  SessionBackends& operator=(const SessionBackends&) = delete;
  virtual ~SessionBackends() = default;

  virtual platform::Workspace& workspace() = 0;
  virtual platform::WindowList& windows() = 0;
  virtual platform::EventTap& tap() = 0;
  virtual platform::Activity& activity() = 0;
  /// For the log: "X display :1", "sway on wayland-1".
  [[nodiscard]] virtual std::string description() const = 0;
  /// How the guard gets the keys here, for Settings ("X11 key grabs"); empty to say nothing.
  [[nodiscard]] virtual std::string guardRoute() const { return {}; }

  using Log = std::function<void(const std::string&)>;
  /// The HUD's panel on this desktop, made once the toolkit runs; `log` hears why a better panel
  /// than the plain Qt window could not be had.
  [[nodiscard]] virtual std::unique_ptr<platform::HudPanel> makeHudPanel(const Log& log) = 0;
  /// Wraps the tray item into one that also shows in the desktop's own place for it (GNOME's top
  /// bar, where no tray host runs); the tray item itself where there is none.
  [[nodiscard]] virtual std::unique_ptr<platform::StatusItemView> wrapStatusItem(
      std::unique_ptr<platform::StatusItemView> tray) {
    return tray;
  }
  /// True while the wrapped item shows in that place.
  [[nodiscard]] virtual bool statusItemShownElsewhere() const { return false; }
};

/// Held keys are input: the compositor's idle timer does not run out during a hold.
class InputIsActivity final : public platform::Activity {
 public:
  [[nodiscard]] std::unique_ptr<platform::ActivityToken> begin(std::string_view /*reason*/) override {
    return std::make_unique<platform::ActivityToken>();
  }
};

/// Sets what Qt must know before the application object exists (its platform plugin).
void prepareQt(const Session& session);

/// Opens the backends of `session`; nothing when the display cannot be reached (`error` says
/// why). A Wayland desktop without a backend (or GNOME without a session bus) gets backends whose
/// tap is never trusted and says so in its `lastError`.
[[nodiscard]] std::unique_ptr<SessionBackends> openSessionBackends(const Session& session,
                                                                   platform::MainLoop& loop,
                                                                   platform::DesktopEntries& entries,
                                                                   std::string& error);

/// The backends of each session kind, one file each; nothing when the session cannot be reached.
[[nodiscard]] std::unique_ptr<SessionBackends> openX11Session(const Session& session,
                                                              platform::MainLoop& loop,
                                                              platform::DesktopEntries& entries,
                                                              std::string& error);
[[nodiscard]] std::unique_ptr<SessionBackends> openSwaySession(const Session& session,
                                                               platform::MainLoop& loop,
                                                               platform::DesktopEntries& entries,
                                                               std::string& error);
[[nodiscard]] std::unique_ptr<SessionBackends> openKdeSession(const Session& session,
                                                              platform::MainLoop& loop,
                                                              platform::DesktopEntries& entries,
                                                              std::string& error);
/// Backends whose tap is never trusted and says `why`: the guard stays off with that reason.
[[nodiscard]] std::unique_ptr<SessionBackends> unsupportedBackends(std::string why, std::string display);
/// GNOME on Wayland, through Tarry's Shell extension (installed and switched on for the user here
/// when needed); nothing when there is no session bus or another program owns Tarry's bus name.
[[nodiscard]] std::unique_ptr<SessionBackends> openGnomeSession(const Session& session,
                                                                platform::DesktopEntries& entries,
                                                                std::string& error);

}  // namespace tarry::desktop
