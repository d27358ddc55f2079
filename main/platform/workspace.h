#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tarry::platform {

/// An application icon: a named icon (shipped with the program, or from the icon theme) or pixels.
struct Icon {
  /// Icon name ("app.fill", a theme name) or an absolute file path; empty when only pixels exist.
  std::string name;
  int width = 0;
  int height = 0;
  /// Premultiplied-free ARGB32 pixels, row by row; null when the icon is named only.
  std::shared_ptr<const std::vector<std::uint32_t>> argb;

  [[nodiscard]] bool empty() const { return name.empty() && !argb; }
  friend bool operator==(const Icon& a, const Icon& b) {
    return a.name == b.name && a.width == b.width && a.height == b.height && a.argb == b.argb;
  }
};

/// A running application as the workspace reports it.
struct RunningApp {
  /// Bundle identifier (on Linux the desktop-file id, else the executable name); may be empty.
  std::string bundleID;
  /// Name in the user's language; may be empty.
  std::string localizedName;
  Icon icon;
  std::int32_t pid = 0;
  /// What relaunches it: a `.desktop` file or an executable path; may be empty.
  std::string path;
  /// Owns a normal, taskbar-visible window.
  bool regular = true;
};

/// Fixed identifier sets that the logic keeps with their original identifiers; the backend adds
/// the equivalents of its own desktop.
enum class IdentifierSet {
  dock,              // the desktop/panel shell, where Ctrl+Q is swallowed silently
  neverTerminate,    // file managers that must never be quit
  terminals,         // terminal emulators
  sessionRestorers,  // apps that restore their own windows on relaunch
  ramSaverSkip,      // apps the RAM Saver never quits
};

/// Running applications of the session.
class Workspace {
 public:
  Workspace() = default;
  Workspace(const Workspace&) = delete;
  Workspace& operator=(const Workspace&) = delete;
  virtual ~Workspace() = default;

  /// The application that owns the active window, if any.
  [[nodiscard]] virtual std::optional<RunningApp> frontmostApplication() = 0;
  /// Every running application with a window, regular or not.
  [[nodiscard]] virtual std::vector<RunningApp> runningApplications() = 0;
  /// Asks the application politely to quit (it may ask about unsaved work); never kills it.
  /// False when the request could not be delivered.
  virtual bool terminate(const RunningApp& app) = 0;
  /// True when the process has ended.
  [[nodiscard]] virtual bool isTerminated(std::int32_t pid) = 0;
  /// This program's own process id.
  [[nodiscard]] virtual std::int32_t ownPid() const = 0;
  /// This program's own icon.
  [[nodiscard]] virtual Icon ownIcon() const = 0;
  /// This desktop's identifiers that belong to `set`, added to the built-in ones.
  [[nodiscard]] virtual std::vector<std::string> identifierEquivalents(IdentifierSet set) const = 0;
  /// Why the frontmost app cannot be known now (no window manager announces the active window),
  /// in words for the user; empty when it can. Answered from memory.
  [[nodiscard]] virtual std::string problem() const { return {}; }
  /// Called, on any thread, with the process id of each app that becomes the active one (the RAM
  /// Saver's last-activation table). Set it once, before anything can be activated; an empty
  /// function stops the calls. Backends that cannot tell never call it.
  virtual void setOnActivated(std::function<void(std::int32_t pid)> onActivated) { (void)onActivated; }
};

}  // namespace tarry::platform
