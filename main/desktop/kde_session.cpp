// The desktop services of KDE Plasma on Wayland: keys through KWin's global shortcuts and fake
// input, apps and windows from the KWin script that ships with the program, the layer-shell HUD.
#include "desktop/session.h"

#include "platform/kde/fake_input_entry.h"
#include "platform/kde/kde_event_tap.h"
#include "platform/kde/kwin_script.h"
#include "platform/kde/kwin_workspace.h"
#include "platform/linux/xdg_paths.h"
#include "platform/qt/qt_hud_panel.h"
#include "platform/wayland/layer_shell_hud_panel.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>

#include <cstdio>
#include <filesystem>

namespace tarry::desktop {
namespace {

class KdeBackends final : public SessionBackends {
 public:
  KdeBackends(std::unique_ptr<platform::kde::KWinScript> script, platform::MainLoop& loop,
              platform::DesktopEntries& entries, std::string display)
      : workspace_(std::move(script), entries),
        tap_(loop, [this] { workspace_.closeActiveWindow(); }),
        display_(std::move(display)) {}
  platform::Workspace& workspace() override { return workspace_; }
  platform::WindowList& windows() override { return workspace_; }
  platform::EventTap& tap() override { return tap_; }
  platform::Activity& activity() override { return activity_; }
  [[nodiscard]] std::string description() const override { return "KWin on Wayland display " + display_; }
  [[nodiscard]] std::string guardRoute() const override { return "KWin's global shortcuts"; }
  /// A layer-shell overlay, as on sway: KWin speaks the protocol.
  [[nodiscard]] std::unique_ptr<platform::HudPanel> makeHudPanel(const Log& log) override {
    std::string error;
    if (auto overlay = platform::wayland::LayerShellHudPanel::open(error)) return overlay;
    log("HUD as an ordinary window: " + error);
    return std::make_unique<platform::qt::QtHudPanel>();
  }

 private:
  platform::kde::KWinWorkspace workspace_;
  platform::kde::KdeEventTap tap_;
  InputIsActivity activity_;
  std::string display_;
};

/// Where KWin's window helper lies: next to the program in a build tree, under share/tarry when
/// installed.
std::string kwinScriptPath() {
  std::error_code error;
  const std::filesystem::path exe = std::filesystem::read_symlink("/proc/self/exe", error);
  if (error) return {};
  for (const std::filesystem::path& candidate :
       {exe.parent_path() / "tarry-kwin.js",
        exe.parent_path().parent_path() / "share" / "tarry" / "tarry-kwin.js"}) {
    if (std::filesystem::is_regular_file(candidate, error)) return candidate.string();
  }
  return {};
}

/// KWin lets this copy type keys once a desktop file declares it (see fake_input_entry.h): the
/// installed launcher does; a copy run from elsewhere writes its own.
void registerFakeInput() {
  std::error_code error;
  const std::filesystem::path exe = std::filesystem::read_symlink("/proc/self/exe", error);
  if (error) return;
  std::vector<std::string> dirs;
  for (const std::string& data : platform::os::dataDirectories()) dirs.push_back(data + "/applications");
  const std::string done = platform::kde::ensureFakeInputEntry(exe.string(), dirs, dirs.front(),
                                                               platform::kde::refreshServiceCache);
  if (!done.empty()) std::fprintf(stderr, "tarry: %s\n", done.c_str());
}

bool kwinOnBus() {
  QDBusConnection bus = QDBusConnection::sessionBus();
  return bus.isConnected() && bus.interface() &&
         bus.interface()->isServiceRegistered(QStringLiteral("org.kde.KWin"));
}

}  // namespace

std::unique_ptr<SessionBackends> openKdeSession(const Session& session, platform::MainLoop& loop,
                                                platform::DesktopEntries& entries, std::string& error) {
  // Plasma's session variables may outlive KWin (another compositor started from the same
  // login): KWin must answer on the bus.
  if (!kwinOnBus())
    return unsupportedBackends("KWin is not on the session bus (org.kde.KWin)", session.display);
  const std::string path = kwinScriptPath();
  if (path.empty()) {
    error = "KWin's window helper tarry-kwin.js is missing next to the program and in share/tarry";
    return nullptr;
  }
  std::unique_ptr<platform::kde::KWinScript> script = platform::kde::KWinScript::open(loop, path, error);
  if (!script) return nullptr;
  registerFakeInput();
  return std::make_unique<KdeBackends>(std::move(script), loop, entries, session.display);
}

}  // namespace tarry::desktop
