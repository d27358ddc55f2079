#pragma once

#include "platform/desktop_entries.h"
#include "platform/gnome/gnome_shell.h"
#include "platform/window_list.h"
#include "platform/workspace.h"

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

namespace tarry::platform::gnome {

/// What the extension tells about one window.
struct GnomeWindow {
  std::uint32_t id = 0;
  std::int32_t pid = 0;
  std::string wmClass;
  std::string gtkAppId;
  std::string sandboxedAppId;
  /// The Shell's app id: the desktop-file id with ".desktop", or "window:N" when it knows none.
  std::string desktopId;
  std::string title;
  double x = 0, y = 0, width = 0, height = 0;
  bool minimized = false;
  bool focused = false;
  /// A normal window that the task list shows.
  bool normal = true;
};

/// Reads one window of the extension's JSON; nothing when it is not an object with an id and pid.
[[nodiscard]] std::optional<GnomeWindow> gnomeWindowOf(const nlohmann::json& json);
/// The names to look a window's desktop entry up by, most telling first: the Shell's desktop-file
/// id, the sandbox's app id, the GTK application id, the WM class.
[[nodiscard]] std::vector<std::string> gnomeEntryNames(const GnomeWindow& window);

/// Running applications and their windows on GNOME, as Tarry's Shell extension sees them.
///
/// The frontmost app owns the focused window; an app is identified by the desktop entry the Shell
/// found for its windows (else its sandbox id, GTK application id or WM class, as on X11). Quitting
/// asks each of the app's windows to close (`Meta.Window.delete`, which lets the app ask about
/// unsaved work); frames are set with `move_resize_frame`. Activations are the extension's focus
/// signals.
class GnomeWorkspace final : public Workspace, public WindowList {
 public:
  GnomeWorkspace(GnomeShell& shell, DesktopEntries& entries, Icon ownIcon = Icon{"tarry", 0, 0, nullptr})
      : shell_(shell), entries_(entries), ownIcon_(std::move(ownIcon)) {}

  [[nodiscard]] std::optional<RunningApp> frontmostApplication() override;
  [[nodiscard]] std::vector<RunningApp> runningApplications() override;
  bool terminate(const RunningApp& app) override;
  [[nodiscard]] bool isTerminated(std::int32_t pid) override;
  [[nodiscard]] std::int32_t ownPid() const override;
  [[nodiscard]] Icon ownIcon() const override { return ownIcon_; }
  [[nodiscard]] std::vector<std::string> identifierEquivalents(IdentifierSet set) const override;
  void setOnActivated(std::function<void(std::int32_t pid)> onActivated) override;

  [[nodiscard]] std::vector<WindowInfo> windowsOf(std::int32_t pid) override;
  bool setFrame(std::uint32_t id, double x, double y, double width, double height, bool minimized) override;

 private:
  [[nodiscard]] std::vector<GnomeWindow> windows() const;
  [[nodiscard]] RunningApp resolve(const GnomeWindow& window) const;

  GnomeShell& shell_;
  DesktopEntries& entries_;
  const Icon ownIcon_;
};

}  // namespace tarry::platform::gnome
