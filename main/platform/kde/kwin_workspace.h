#pragma once

#include "platform/desktop_entries.h"
#include "platform/kde/kwin_script.h"
#include "platform/window_list.h"
#include "platform/workspace.h"

#include <chrono>
#include <memory>
#include <string>

namespace tarry::platform::kde {

/// Running applications and their windows on KWin (Plasma on Wayland), from what the window helper
/// inside KWin reports.
///
/// An application is a process that owns normal windows; the frontmost one owns the active window.
/// Its identifier is the desktop-file id found for the window's desktop-file name (a Wayland
/// app_id) or resource class by the same rules as on X11, else the executable's name; name and icon
/// come from the desktop entry. Quitting asks KWin to close each of the app's windows (which lets
/// the app ask about unsaved work). Activations are the helper's reports of a new active window.
class KWinWorkspace final : public Workspace, public WindowList {
 public:
  KWinWorkspace(std::unique_ptr<KWinScript> script, DesktopEntries& entries,
                Icon ownIcon = Icon{"tarry", 0, 0, nullptr});
  ~KWinWorkspace() override;
  KWinWorkspace(const KWinWorkspace&) = delete;
  KWinWorkspace& operator=(const KWinWorkspace&) = delete;

  [[nodiscard]] std::optional<RunningApp> frontmostApplication() override;
  [[nodiscard]] std::vector<RunningApp> runningApplications() override;
  bool terminate(const RunningApp& app) override;
  [[nodiscard]] bool isTerminated(std::int32_t pid) override;
  [[nodiscard]] std::int32_t ownPid() const override;
  [[nodiscard]] Icon ownIcon() const override { return ownIcon_; }
  [[nodiscard]] std::vector<std::string> identifierEquivalents(IdentifierSet set) const override;
  [[nodiscard]] std::string problem() const override;
  void setOnActivated(std::function<void(std::int32_t pid)> onActivated) override;

  [[nodiscard]] std::vector<WindowInfo> windowsOf(std::int32_t pid) override;
  /// Asks KWin to move, size and (un)minimize the window; the new frame reads back once the app
  /// has taken it.
  bool setFrame(std::uint32_t id, double x, double y, double width, double height, bool minimized) override;

  /// Asks KWin to close the active window (as its close button would).
  void closeActiveWindow();

 private:
  [[nodiscard]] RunningApp resolve(const KWinWindow& window) const;

  std::unique_ptr<KWinScript> script_;
  const std::chrono::steady_clock::time_point opened_ = std::chrono::steady_clock::now();
  DesktopEntries& entries_;
  const Icon ownIcon_;
};

}  // namespace tarry::platform::kde
