// The desktop services of a sway session (or another compositor speaking its IPC): bindings over
// the IPC, the virtual keyboard, apps and windows from the tree, the layer-shell HUD.
#include "desktop/session.h"

#include "platform/qt/qt_hud_panel.h"
#include "platform/wayland/layer_shell_hud_panel.h"
#include "platform/wayland/sway_event_tap.h"
#include "platform/wayland/sway_ipc.h"
#include "platform/wayland/sway_workspace.h"

namespace tarry::desktop {
namespace {

class SwayBackends final : public SessionBackends {
 public:
  SwayBackends(std::unique_ptr<platform::wayland::SwayWorkspace> workspace, platform::MainLoop& loop,
               std::string socket, std::string display)
      : workspace_(std::move(workspace)), tap_(loop, socket), display_(std::move(display)) {}
  platform::Workspace& workspace() override { return *workspace_; }
  platform::WindowList& windows() override { return *workspace_; }
  platform::EventTap& tap() override { return tap_; }
  platform::Activity& activity() override { return activity_; }
  [[nodiscard]] std::string description() const override { return "sway on Wayland display " + display_; }
  [[nodiscard]] std::string guardRoute() const override { return "sway's key bindings"; }
  /// A layer-shell overlay: above every window, never focused, click-through.
  [[nodiscard]] std::unique_ptr<platform::HudPanel> makeHudPanel(const Log& log) override {
    std::string error;
    if (auto overlay = platform::wayland::LayerShellHudPanel::open(error)) return overlay;
    log("HUD as an ordinary window: " + error);
    return std::make_unique<platform::qt::QtHudPanel>();
  }

 private:
  std::unique_ptr<platform::wayland::SwayWorkspace> workspace_;
  platform::wayland::SwayEventTap tap_;
  InputIsActivity activity_;
  std::string display_;
};

}  // namespace

std::unique_ptr<SessionBackends> openSwaySession(const Session& session, platform::MainLoop& loop,
                                                 platform::DesktopEntries& entries, std::string& error) {
  const std::string socket = platform::wayland::SwayIpc::socketPath();
  std::unique_ptr<platform::wayland::SwayWorkspace> workspace =
      platform::wayland::SwayWorkspace::open(socket, entries, error);
  if (!workspace) return nullptr;
  return std::make_unique<SwayBackends>(std::move(workspace), loop, socket, session.display);
}

}  // namespace tarry::desktop
