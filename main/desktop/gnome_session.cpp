// The desktop services of GNOME on Wayland: Tarry's Shell extension, spoken to over the session
// bus, grabs and types the keys, tells about windows and draws the HUD.
#include "desktop/session.h"

#include "platform/gnome/gnome_event_tap.h"
#include "platform/gnome/gnome_extension_setup.h"
#include "platform/gnome/gnome_hud_panel.h"
#include "platform/gnome/gnome_shell.h"
#include "platform/gnome/gnome_status_item.h"
#include "platform/gnome/gnome_workspace.h"

namespace tarry::desktop {
namespace {

class GnomeBackends final : public SessionBackends {
 public:
  GnomeBackends(std::unique_ptr<platform::gnome::GnomeShell> shell, platform::DesktopEntries& entries,
                std::string display)
      : shell_(std::move(shell)), workspace_(*shell_, entries), tap_(*shell_), display_(std::move(display)) {}
  platform::Workspace& workspace() override { return workspace_; }
  platform::WindowList& windows() override { return workspace_; }
  platform::EventTap& tap() override { return tap_; }
  platform::Activity& activity() override { return activity_; }
  [[nodiscard]] std::string description() const override {
    return "GNOME Shell (Tarry's extension) on Wayland display " + display_;
  }
  [[nodiscard]] std::string guardRoute() const override { return "Tarry's GNOME Shell extension"; }
  void setMissingText(std::string text) { tap_.setMissingText(std::move(text)); }
  /// Drawn by the extension: Mutter gives programs no layer above other windows.
  [[nodiscard]] std::unique_ptr<platform::HudPanel> makeHudPanel(const Log& /*log*/) override {
    return std::make_unique<platform::gnome::GnomeHudPanel>(*shell_);
  }
  /// Stock GNOME has no tray: the extension shows the item in the top bar, with its own symbolic
  /// icons, while no StatusNotifier host is on the bus.
  [[nodiscard]] std::unique_ptr<platform::StatusItemView> wrapStatusItem(
      std::unique_ptr<platform::StatusItemView> tray) override {
    auto item = std::make_unique<platform::gnome::GnomeStatusItem>(*shell_, std::move(tray));
    item_ = item.get();
    return item;
  }
  [[nodiscard]] bool statusItemShownElsewhere() const override { return item_ && item_->inTopBar(); }

 private:
  std::unique_ptr<platform::gnome::GnomeShell> shell_;
  platform::gnome::GnomeWorkspace workspace_;
  platform::gnome::GnomeEventTap tap_;
  InputIsActivity activity_;
  std::string display_;
  platform::gnome::GnomeStatusItem* item_ = nullptr;  // owned by the status menu
};

}  // namespace

std::unique_ptr<SessionBackends> openGnomeSession(const Session& session, platform::DesktopEntries& entries,
                                                  std::string& error) {
  std::unique_ptr<platform::gnome::GnomeShell> shell = platform::gnome::GnomeShell::connect(error);
  if (!shell) return nullptr;
  // The extension is put in place and switched on here; the Shell loads it at the next login.
  std::string problem;
  if (const auto builds = platform::gnome::findExtensionBuilds()) {
    problem = platform::gnome::setUpExtension(*builds, shell->shellMajorVersion(), shell->extensionRunning())
                  .problem;
  }
  auto backends = std::make_unique<GnomeBackends>(std::move(shell), entries, session.display);
  backends->setMissingText(problem);
  return backends;
}

}  // namespace tarry::desktop
