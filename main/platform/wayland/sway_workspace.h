#pragma once

#include "platform/desktop_entries.h"
#include "platform/wayland/sway_ipc.h"
#include "platform/window_list.h"
#include "platform/workspace.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace tarry::platform::wayland {

/// Running applications and their windows on sway, from the compositor's tree (`get_tree`).
///
/// An application is a process that owns views (Wayland windows and Xwayland ones alike); the
/// frontmost one owns the focused view. Its identifier is the desktop-file id found for the
/// view's `app_id` (for Xwayland views: its WM_CLASS) by the same rules as on X11, else the
/// executable's name; name and icon come from the desktop entry. Quitting asks the compositor to
/// close each of the app's views (`[pid=N] kill`, which lets the app ask about unsaved work).
/// Windows are the app's views: title, frame, and minimized = in the scratchpad. Activations are
/// the compositor's `window` focus events, followed on a connection and a thread of their own.
class SwayWorkspace final : public Workspace, public WindowList {
 public:
  ~SwayWorkspace() override;
  SwayWorkspace(const SwayWorkspace&) = delete;
  SwayWorkspace& operator=(const SwayWorkspace&) = delete;

  /// Nothing when the socket does not answer (`error` says why).
  [[nodiscard]] static std::unique_ptr<SwayWorkspace> open(const std::string& socketPath,
                                                           DesktopEntries& entries, std::string& error,
                                                           Icon ownIcon = Icon{"tarry", 0, 0, nullptr});

  [[nodiscard]] std::optional<RunningApp> frontmostApplication() override;
  [[nodiscard]] std::vector<RunningApp> runningApplications() override;
  bool terminate(const RunningApp& app) override;
  [[nodiscard]] bool isTerminated(std::int32_t pid) override;
  [[nodiscard]] std::int32_t ownPid() const override;
  [[nodiscard]] Icon ownIcon() const override { return ownIcon_; }
  [[nodiscard]] std::vector<std::string> identifierEquivalents(IdentifierSet set) const override;
  /// Called on the focus watcher's thread with the pid of each view that gets the focus. The
  /// watcher starts with the first function set and connects again when the socket goes away.
  void setOnActivated(std::function<void(std::int32_t pid)> onActivated) override;

  [[nodiscard]] std::vector<WindowInfo> windowsOf(std::int32_t pid) override;
  /// Floating views are moved and resized; tiled views keep the place the layout gives them.
  /// Minimized moves the view to the scratchpad, and back out of it when it is not.
  bool setFrame(std::uint32_t id, double x, double y, double width, double height, bool minimized) override;

 private:
  SwayWorkspace(std::string socketPath, std::unique_ptr<SwayIpc> ipc, DesktopEntries& entries, Icon ownIcon)
      : socketPath_(std::move(socketPath)),
        ipc_(std::move(ipc)),
        entries_(entries),
        ownIcon_(std::move(ownIcon)) {}
  [[nodiscard]] RunningApp resolve(const nlohmann::json& view) const;
  void watchFocus();

  const std::string socketPath_;
  std::unique_ptr<SwayIpc> ipc_;
  DesktopEntries& entries_;
  const Icon ownIcon_;

  // The focus watcher.
  std::mutex watchMutex_;
  std::condition_variable watchWake_;
  std::function<void(std::int32_t pid)> onActivated_;  // needs `watchMutex_`
  std::shared_ptr<SwayIpc> focusEvents_;               // needs `watchMutex_`
  bool stopping_ = false;                              // needs `watchMutex_`
  std::thread watcher_;
};

/// The pid of the view a `window` event gives the focus to; nothing for other events.
[[nodiscard]] std::optional<std::int32_t> swayFocusedPid(const nlohmann::json& windowEvent);

/// Every view of a `get_tree` answer (nodes with a pid), front to back (each container's focus
/// order), with whether it sits in the scratchpad and whether it floats.
struct SwayView {
  const nlohmann::json* node = nullptr;
  bool scratchpad = false;
  bool floating = false;
};
[[nodiscard]] std::vector<SwayView> swayViews(const nlohmann::json& tree);
/// The focused view of a `get_tree` answer, else (while a layer surface has the keyboard) the one
/// first in the focus order; null when a workspace without views has the focus.
[[nodiscard]] const nlohmann::json* swayFocusedView(const nlohmann::json& tree);

}  // namespace tarry::platform::wayland
