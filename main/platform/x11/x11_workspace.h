#pragma once

#include "platform/desktop_entries.h"
#include "platform/workspace.h"
#include "platform/x11/x11_display.h"

#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace tarry::platform::x11 {

/// Running applications of an X11 session with an EWMH window manager.
///
/// An application is a process that owns managed windows (`_NET_CLIENT_LIST`); the frontmost one
/// owns `_NET_ACTIVE_WINDOW`. Its identifier is the desktop-file id (`_GTK_APPLICATION_ID`,
/// `_KDE_NET_WM_DESKTOP_FILE`, then WM_CLASS matched against the installed entries), else the
/// executable's name; its icon the window's `_NET_WM_ICON`, else the entry's theme icon. A
/// backend thread follows the root window's properties, so the tap
/// callback's question "who is frontmost" is answered from memory.
class X11Workspace final : public Workspace {
 public:
  /// Identifier of a desktop or panel window whose program is not a known desktop shell; it is
  /// one of the `dock` equivalents, so a quit aimed at the desktop is swallowed silently.
  static constexpr const char* kDesktopShellId = "x11-desktop-shell";

  X11Workspace(X11Display& display, DesktopEntries& entries, Icon ownIcon = Icon{"tarry", 0, 0, nullptr});
  ~X11Workspace() override;

  [[nodiscard]] std::optional<RunningApp> frontmostApplication() override;
  [[nodiscard]] std::vector<RunningApp> runningApplications() override;
  /// Asks the window manager to close each of the app's windows (`_NET_CLOSE_WINDOW`; without a
  /// window manager, WM_DELETE_WINDOW to the windows that accept it).
  bool terminate(const RunningApp& app) override;
  [[nodiscard]] bool isTerminated(std::int32_t pid) override;
  [[nodiscard]] std::int32_t ownPid() const override;
  [[nodiscard]] Icon ownIcon() const override { return ownIcon_; }
  [[nodiscard]] std::vector<std::string> identifierEquivalents(IdentifierSet set) const override;

 private:
  struct Resolved {
    RunningApp app;
    /// The window is a normal, taskbar-visible one.
    bool regular = false;
  };

  [[nodiscard]] Resolved resolve(xcb_window_t window) const;
  [[nodiscard]] Resolved cached(xcb_window_t window);
  void watch();
  void readActive();
  void readClients();

  /// Installed terminal emulators (desktop entries in the TerminalEmulator category), re-read
  /// at most once a minute.
  [[nodiscard]] std::vector<std::string> installedTerminals() const;

  X11Display& display_;
  DesktopEntries& entries_;
  mutable std::mutex terminalsMutex_;
  mutable std::vector<std::string> terminals_;
  mutable double terminalsReadAt_ = -1;
  const Icon ownIcon_;
  xcb_window_t wakeWindow_ = 0;

  std::mutex mutex_;  // everything below
  bool stopping_ = false;
  bool activeKnown_ = false;
  xcb_window_t active_ = 0;
  std::vector<xcb_window_t> clients_;
  bool clientsKnown_ = false;
  std::map<xcb_window_t, Resolved> byWindow_;

  std::thread watcher_;
};

/// The icon to show for a window: of the `_NET_WM_ICON` images (width, height, ARGB pixels, ...)
/// the largest no larger than 64 px, else the smallest; empty when the data holds none.
[[nodiscard]] Icon pickWindowIcon(const std::vector<std::uint32_t>& data);

}  // namespace tarry::platform::x11
