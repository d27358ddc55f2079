#include "desktop/session.h"

#include "platform/qt/qt_hud_panel.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>

namespace tarry::desktop {
namespace {

std::string lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text;
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
  [[nodiscard]] std::unique_ptr<platform::HudPanel> makeHudPanel(const Log&) override {
    return std::make_unique<platform::qt::QtHudPanel>();
  }

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
    session.kind = !get("SWAYSOCK").empty()      ? Session::Kind::sway
                   : namesGnome(session.desktop) ? Session::Kind::gnome
                   : namesKde(session.desktop)   ? Session::Kind::kde
                                                 : Session::Kind::otherWayland;
    if (session.desktop.empty() && session.kind == Session::Kind::sway) session.desktop = "sway";
    return session;
  }
  session.display = get("DISPLAY");
  if (!session.display.empty()) session.kind = Session::Kind::x11;
  return session;
}

bool namesGnome(const std::string& currentDesktop) {
  std::istringstream names(currentDesktop);
  std::string name;
  while (std::getline(names, name, ':')) {
    if (lower(name) == "gnome") return true;
  }
  return false;
}

bool namesKde(const std::string& currentDesktop) {
  std::istringstream names(currentDesktop);
  std::string name;
  while (std::getline(names, name, ':')) {
    if (lower(name) == "kde") return true;
  }
  return false;
}

std::unique_ptr<SessionBackends> unsupportedBackends(std::string why, std::string display) {
  return std::make_unique<UnsupportedBackends>(std::move(why), std::move(display));
}

std::string unsupportedWaylandText(const std::string& desktop) {
  return "this Wayland desktop is not supported yet: " +
         (desktop.empty() ? std::string("unknown") : desktop) +
         " (Tarry guards keys on X11, on sway, on GNOME and on KDE Plasma)";
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
    case Session::Kind::x11:
      return openX11Session(session, loop, entries, error);
    case Session::Kind::sway:
      return openSwaySession(session, loop, entries, error);
    case Session::Kind::gnome: {
      std::string why;
      if (auto gnome = openGnomeSession(session, entries, why)) return gnome;
      return unsupportedBackends("cannot reach GNOME Shell: " + why, session.display);
    }
    case Session::Kind::kde:
      return openKdeSession(session, loop, entries, error);
    case Session::Kind::otherWayland:
      return std::make_unique<UnsupportedBackends>(unsupportedWaylandText(session.desktop), session.display);
  }
  return nullptr;
}

}  // namespace tarry::desktop
