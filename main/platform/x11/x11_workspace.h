#pragma once

#include "platform/desktop_entries.h"
#include "platform/workspace.h"
#include "platform/x11/x11_display.h"

#include <functional>
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
/// window's class (WM_CLASS; for the generic "Tk" the instance or the script an interpreter runs),
/// else the executable's name; its icon the window's `_NET_WM_ICON`, else the entry's theme icon.
/// All windows of a process give one app: the one that leads to a desktop entry names it, else its
/// client or group leader, else its first plain top-level window (never a transient window or a
/// Tk widget path such as "!toplevel"). A
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
  /// No EWMH window manager announces itself (`_NET_SUPPORTING_WM_CHECK`) or the active window
  /// (`_NET_ACTIVE_WINDOW` in `_NET_SUPPORTED`), or the display was lost. From memory: the
  /// watcher reads it again when those root properties change or the window manager's check
  /// window is destroyed (a window manager that went away leaves its root properties behind).
  [[nodiscard]] std::string problem() const override;

  /// Called on the backend's watcher thread.
  void setOnActivated(std::function<void(std::int32_t pid)> onActivated) override {
    std::lock_guard lock(mutex_);
    onActivated_ = std::move(onActivated);
  }

 private:
  /// What one window says about its app.
  struct Resolved {
    RunningApp app;
    /// The window is a normal, taskbar-visible one.
    bool regular = false;
    /// Its hints led to an installed desktop entry.
    bool fromEntry = false;
    /// The id came from a desktop entry or a window class, not from the executable's name.
    bool named = false;
    /// A transient window, or one whose WM_CLASS instance is a toolkit's widget path (Tk's
    /// "!toplevel"): it never names its app.
    bool secondary = false;
    /// A desktop or panel window.
    bool shell = false;
    /// WM_CLIENT_LEADER, else the WM_HINTS window group, when that is another window; else 0.
    xcb_window_t leader = 0;
  };

  [[nodiscard]] Resolved resolve(xcb_window_t window) const;
  [[nodiscard]] Resolved cached(xcb_window_t window);
  /// The app of the process owning `window`, chosen among that process's windows in `clients`.
  [[nodiscard]] Resolved appOf(xcb_window_t window, const std::vector<xcb_window_t>& clients);
  /// The managed windows, from memory once the watcher has read them.
  [[nodiscard]] std::vector<xcb_window_t> knownClients();
  void watch();
  void readActive();
  void readClients();
  /// Reads the window manager's state from the server (a few requests); the check window it
  /// found, or 0, into `checkWindow` when given.
  [[nodiscard]] std::string readProblem(xcb_window_t* checkWindow) const;
  /// Reads it on the watcher thread and follows the check window's end.
  void followProblem();

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

  mutable std::mutex mutex_;  // everything below
  bool stopping_ = false;
  bool problemKnown_ = false;
  std::string problem_;
  xcb_window_t checkWindow_ = 0;
  bool activeKnown_ = false;
  xcb_window_t active_ = 0;
  std::vector<xcb_window_t> clients_;
  bool clientsKnown_ = false;
  std::map<xcb_window_t, Resolved> byWindow_;
  std::function<void(std::int32_t)> onActivated_;
  std::int32_t activePid_ = 0;

  std::thread watcher_;
};

/// The icon to show for a window: of the `_NET_WM_ICON` images (width, height, ARGB pixels, ...)
/// the largest no larger than 64 px, else the smallest; empty when the data holds none.
[[nodiscard]] Icon pickWindowIcon(const std::vector<std::uint32_t>& data);

/// The name of the script an interpreter runs, from its command line ("python3 -u ~/bin/notes.py"
/// gives "notes", "python3 -m notes" gives "notes"); empty for other programs and inline code.
[[nodiscard]] std::string scriptNameOf(const std::vector<std::string>& args);

}  // namespace tarry::platform::x11
