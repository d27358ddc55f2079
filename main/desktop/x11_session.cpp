// The desktop services of an X11 session: key grabs, EWMH windows and apps, XTest key posting.
#include "desktop/session.h"

#include "platform/qt/qt_hud_panel.h"
#include "platform/x11/x11_activity.h"
#include "platform/x11/x11_display.h"
#include "platform/x11/x11_event_tap.h"
#include "platform/x11/x11_window_list.h"
#include "platform/x11/x11_workspace.h"

namespace tarry::desktop {
namespace {

class X11Backends final : public SessionBackends {
 public:
  X11Backends(std::unique_ptr<platform::x11::X11Display> display, platform::MainLoop& loop,
              platform::DesktopEntries& entries, std::string name)
      : display_(std::move(display)),
        workspace_(*display_, entries),
        windows_(*display_),
        tap_(loop),
        // On the display's own connection: the server ends the suspension if the program dies.
        activity_(display_->connection()),
        name_(std::move(name)) {}
  platform::Workspace& workspace() override { return workspace_; }
  platform::WindowList& windows() override { return windows_; }
  platform::EventTap& tap() override { return tap_; }
  platform::Activity& activity() override { return activity_; }
  [[nodiscard]] std::string description() const override { return "X display " + name_; }
  [[nodiscard]] std::string guardRoute() const override { return "X11 key grabs"; }
  [[nodiscard]] std::unique_ptr<platform::HudPanel> makeHudPanel(const Log&) override {
    return std::make_unique<platform::qt::QtHudPanel>();
  }

 private:
  std::unique_ptr<platform::x11::X11Display> display_;
  platform::x11::X11Workspace workspace_;
  platform::x11::X11WindowList windows_;
  platform::x11::X11EventTap tap_;
  platform::x11::X11Activity activity_;
  std::string name_;
};

}  // namespace

std::unique_ptr<SessionBackends> openX11Session(const Session& session, platform::MainLoop& loop,
                                                platform::DesktopEntries& entries, std::string& error) {
  std::unique_ptr<platform::x11::X11Display> display =
      platform::x11::X11Display::open(session.display, error);
  if (!display) return nullptr;
  return std::make_unique<X11Backends>(std::move(display), loop, entries, session.display);
}

}  // namespace tarry::desktop
