#include "app/session_backends.h"

#include "platform/kde/fake_input_entry.h"
#include "platform/kde/kde_event_tap.h"
#include "platform/kde/kwin_script.h"
#include "platform/kde/kwin_workspace.h"
#include "platform/qt/qt_hud_panel.h"
#include "platform/wayland/layer_shell_hud_panel.h"
#include "platform/wayland/sway_event_tap.h"
#include "platform/wayland/sway_ipc.h"
#include "platform/wayland/sway_workspace.h"
#include "platform/x11/x11_activity.h"
#include "platform/x11/x11_display.h"
#include "platform/x11/x11_event_tap.h"
#include "platform/x11/x11_window_list.h"
#include "platform/x11/x11_workspace.h"

#include <unistd.h>
#include <QDBusConnection>
#include <QDBusConnectionInterface>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sstream>

namespace tarry::app {
namespace {

std::string lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text;
}

/// Held keys are input: the compositor's idle timer does not run out during a hold.
class InputIsActivity final : public platform::Activity {
 public:
  [[nodiscard]] std::unique_ptr<platform::ActivityToken> begin(std::string_view /*reason*/) override {
    return std::make_unique<platform::ActivityToken>();
  }
};

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

 private:
  std::unique_ptr<platform::x11::X11Display> display_;
  platform::x11::X11Workspace workspace_;
  platform::x11::X11WindowList windows_;
  platform::x11::X11EventTap tap_;
  platform::x11::X11Activity activity_;
  std::string name_;
};

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

 private:
  std::unique_ptr<platform::wayland::SwayWorkspace> workspace_;
  platform::wayland::SwayEventTap tap_;
  InputIsActivity activity_;
  std::string display_;
};

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

 private:
  platform::kde::KWinWorkspace workspace_;
  platform::kde::KdeEventTap tap_;
  InputIsActivity activity_;
  std::string display_;
};

/// Where the KWin window helper lies: next to the program in a build tree, under share/tarry
/// when installed.
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

std::string dataHome() {
  const char* data = std::getenv("XDG_DATA_HOME");
  if (data && *data) return data;
  const char* home = std::getenv("HOME");
  return std::string(home ? home : "") + "/.local/share";
}

/// KWin lets this copy type keys once a desktop file declares it (see fake_input_entry.h).
void registerFakeInput() {
  std::error_code error;
  const std::filesystem::path exe = std::filesystem::read_symlink("/proc/self/exe", error);
  if (error) return;
  std::vector<std::string> dirs = {dataHome() + "/applications"};
  const char* dataDirs = std::getenv("XDG_DATA_DIRS");
  std::istringstream list(dataDirs && *dataDirs ? dataDirs : "/usr/local/share:/usr/share");
  for (std::string dir; std::getline(list, dir, ':');) {
    if (!dir.empty()) dirs.push_back(dir + "/applications");
  }
  const std::string done = platform::kde::ensureFakeInputEntry(
      exe.string(), dirs, dataHome() + "/applications", platform::kde::refreshServiceCache);
  if (!done.empty()) std::fprintf(stderr, "tarry: %s\n", done.c_str());
}

bool kwinOnBus() {
  QDBusConnection bus = QDBusConnection::sessionBus();
  return bus.isConnected() && bus.interface() &&
         bus.interface()->isServiceRegistered(QStringLiteral("org.kde.KWin"));
}

/// A tap that is never trusted and tells why: the guard stays off with that reason.
class UnsupportedTap final : public platform::EventTap {
 public:
  explicit UnsupportedTap(std::string why) : why_(std::move(why)) {}
  [[nodiscard]] bool isTrusted() override { return false; }
  [[nodiscard]] std::unique_ptr<platform::TapHandle> create(Callback) override { return nullptr; }
  [[nodiscard]] std::string lastError() const override { return why_; }
  [[nodiscard]] bool listenAccessGranted() override { return false; }
  void requestListenAccess() override {}
  void post(const platform::KeyEvent&) override {}

 private:
  std::string why_;
};

class NoWorkspace final : public platform::Workspace, public platform::WindowList {
 public:
  [[nodiscard]] std::optional<platform::RunningApp> frontmostApplication() override { return std::nullopt; }
  [[nodiscard]] std::vector<platform::RunningApp> runningApplications() override { return {}; }
  bool terminate(const platform::RunningApp&) override { return false; }
  [[nodiscard]] bool isTerminated(std::int32_t) override { return false; }
  [[nodiscard]] std::int32_t ownPid() const override { return static_cast<std::int32_t>(getpid()); }
  [[nodiscard]] platform::Icon ownIcon() const override { return platform::Icon{"tarry", 0, 0, nullptr}; }
  [[nodiscard]] std::vector<std::string> identifierEquivalents(platform::IdentifierSet) const override {
    return {};
  }
  [[nodiscard]] std::vector<platform::WindowInfo> windowsOf(std::int32_t) override { return {}; }
  bool setFrame(std::uint32_t, double, double, double, double, bool) override { return false; }
};

class UnsupportedBackends final : public SessionBackends {
 public:
  UnsupportedBackends(std::string why, std::string display)
      : tap_(std::move(why)), display_(std::move(display)) {}
  platform::Workspace& workspace() override { return workspace_; }
  platform::WindowList& windows() override { return workspace_; }
  platform::EventTap& tap() override { return tap_; }
  platform::Activity& activity() override { return activity_; }
  [[nodiscard]] std::string description() const override { return "Wayland display " + display_; }

 private:
  NoWorkspace workspace_;
  UnsupportedTap tap_;
  InputIsActivity activity_;
  std::string display_;
};

}  // namespace

Session detectSession(const std::function<const char*(const char*)>& env) {
  const auto get = [&](const char* name) {
    const char* value = env ? env(name) : std::getenv(name);
    return value ? std::string(value) : std::string();
  };
  Session session;
  const std::string wayland = get("WAYLAND_DISPLAY");
  const std::string type = lower(get("XDG_SESSION_TYPE"));
  if (!wayland.empty() || type == "wayland") {
    session.display = wayland;
    session.desktop = get("XDG_CURRENT_DESKTOP");
    session.kind = !get("SWAYSOCK").empty()    ? Session::Kind::sway
                   : namesKde(session.desktop) ? Session::Kind::kde
                                               : Session::Kind::otherWayland;
    if (session.desktop.empty() && session.kind == Session::Kind::sway) session.desktop = "sway";
    return session;
  }
  session.display = get("DISPLAY");
  if (!session.display.empty()) session.kind = Session::Kind::x11;
  return session;
}

bool namesKde(const std::string& currentDesktop) {
  std::istringstream names(currentDesktop);
  std::string name;
  while (std::getline(names, name, ':')) {
    if (lower(name) == "kde") return true;
  }
  return false;
}

std::string unsupportedWaylandText(const std::string& desktop) {
  return "this Wayland desktop is not supported yet: " +
         (desktop.empty() ? std::string("unknown") : desktop) +
         " (Tarry guards keys on X11, on sway and on KDE Plasma; GNOME needs its own backend)";
}

void prepareQt(const Session& session) {
  // The HUD must live where the guard works: on the X server, even inside a Wayland session that
  // offers Xwayland; on Wayland as a Wayland surface.
  setenv("QT_QPA_PLATFORM", session.kind == Session::Kind::x11 ? "xcb" : "wayland", 0);
}

std::unique_ptr<SessionBackends> openSessionBackends(const Session& session, platform::MainLoop& loop,
                                                     platform::DesktopEntries& entries, std::string& error) {
  switch (session.kind) {
    case Session::Kind::none:
      error = "no X or Wayland display";
      return nullptr;
    case Session::Kind::x11: {
      std::unique_ptr<platform::x11::X11Display> display =
          platform::x11::X11Display::open(session.display, error);
      if (!display) return nullptr;
      return std::make_unique<X11Backends>(std::move(display), loop, entries, session.display);
    }
    case Session::Kind::sway: {
      const std::string socket = platform::wayland::SwayIpc::socketPath();
      std::unique_ptr<platform::wayland::SwayWorkspace> workspace =
          platform::wayland::SwayWorkspace::open(socket, entries, error);
      if (!workspace) return nullptr;
      return std::make_unique<SwayBackends>(std::move(workspace), loop, socket, session.display);
    }
    case Session::Kind::kde: {
      // Plasma's session variables may outlive KWin (another compositor started from the same
      // login): KWin must answer on the bus.
      if (!kwinOnBus())
        return std::make_unique<UnsupportedBackends>("KWin is not on the session bus (org.kde.KWin)",
                                                     session.display);
      const std::string path = kwinScriptPath();
      if (path.empty()) {
        error = "the KWin window helper tarry-kwin.js is missing next to the program and in share/tarry";
        return nullptr;
      }
      std::unique_ptr<platform::kde::KWinScript> script = platform::kde::KWinScript::open(loop, path, error);
      if (!script) return nullptr;
      registerFakeInput();
      return std::make_unique<KdeBackends>(std::move(script), loop, entries, session.display);
    }
    case Session::Kind::otherWayland:
      return std::make_unique<UnsupportedBackends>(unsupportedWaylandText(session.desktop), session.display);
  }
  return nullptr;
}

std::unique_ptr<platform::HudPanel> makeHudPanel(const Session& session,
                                                 const std::function<void(const std::string&)>& log) {
  if (session.kind == Session::Kind::sway || session.kind == Session::Kind::kde) {
    std::string error;
    if (auto overlay = platform::wayland::LayerShellHudPanel::open(error)) return overlay;
    log("HUD as an ordinary window: " + error);
  }
  return std::make_unique<platform::qt::QtHudPanel>();
}

}  // namespace tarry::app
