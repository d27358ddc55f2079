#include "platform/kde/kwin_workspace.h"

#include "platform/linux/app_lookup.h"
#include "platform/linux/desktop_identifiers.h"
#include "platform/linux/proc_process_info.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <set>

namespace tarry::platform::kde {

using os::executableOf;

KWinWorkspace::KWinWorkspace(std::unique_ptr<KWinScript> script, DesktopEntries& entries, Icon ownIcon)
    : script_(std::move(script)), entries_(entries), ownIcon_(std::move(ownIcon)) {}

KWinWorkspace::~KWinWorkspace() = default;

RunningApp KWinWorkspace::resolve(const KWinWindow& window) const {
  RunningApp app;
  app.pid = window.pid;
  // Wayland apps name their desktop file; Xwayland ones carry WM_CLASS, as on X11.
  const std::vector<std::string> names = {window.desktopFile, window.resourceClass};
  const std::optional<DesktopEntry> entry = os::entryOfNames(entries_, names, names);
  const std::string exe = executableOf(app.pid);
  const std::string own = !window.desktopFile.empty() ? window.desktopFile : window.resourceClass;
  app.bundleID = entry ? entry->id : !own.empty() ? own : std::filesystem::path(exe).filename().string();
  app.localizedName = entry && !entry->name.empty() ? entry->name : own;
  if (app.localizedName.empty()) app.localizedName = std::filesystem::path(exe).filename().string();
  app.path = entry ? entry->path : exe;
  if (entry) app.icon.name = entry->icon;
  app.regular = true;
  return app;
}

std::optional<RunningApp> KWinWorkspace::frontmostApplication() {
  const KWinWindows windows = script_->windows();
  if (const KWinWindow* active = windows.activeWindow()) return resolve(*active);
  return std::nullopt;
}

std::vector<RunningApp> KWinWorkspace::runningApplications() {
  std::vector<RunningApp> apps;
  std::set<std::int32_t> seen;
  for (const KWinWindow& window : script_->windows().windows) {
    if (window.pid > 0 && seen.insert(window.pid).second) apps.push_back(resolve(window));
  }
  return apps;
}

bool KWinWorkspace::terminate(const RunningApp& app) {
  if (app.pid <= 0) return false;
  script_->closeWindowsOf(app.pid);
  return true;
}

bool KWinWorkspace::isTerminated(std::int32_t pid) { return os::processEnded(pid); }

std::int32_t KWinWorkspace::ownPid() const { return static_cast<std::int32_t>(getpid()); }

std::vector<std::string> KWinWorkspace::identifierEquivalents(IdentifierSet set) const {
  return os::linuxIdentifierEquivalents(set);
}

std::string KWinWorkspace::problem() const {
  // The helper's first report comes within moments of loading it (KWin may be busy for a second
  // when the program starts): only a lasting silence is a problem.
  constexpr auto kFirstReportWithin = std::chrono::seconds(5);
  if (script_->reported() || std::chrono::steady_clock::now() - opened_ < kFirstReportWithin) return {};
  return "KWin's window helper has not reported the windows";
}

void KWinWorkspace::setOnActivated(std::function<void(std::int32_t pid)> onActivated) {
  script_->setOnActivated(std::move(onActivated));
}

std::vector<WindowInfo> KWinWorkspace::windowsOf(std::int32_t pid) {
  std::vector<WindowInfo> out;
  for (const KWinWindow& window : script_->windows().windows) {
    if (window.pid != pid) continue;
    WindowInfo info;
    info.id = window.id;
    info.title = window.caption;
    info.x = window.x;
    info.y = window.y;
    info.width = window.width;
    info.height = window.height;
    info.minimized = window.minimized;
    out.push_back(std::move(info));
  }
  return out;
}

bool KWinWorkspace::setFrame(std::uint32_t id, double x, double y, double width, double height,
                             bool minimized) {
  return script_->setFrame(id, x, y, width, height, minimized);
}

void KWinWorkspace::closeActiveWindow() {
  const KWinWindows windows = script_->windows();
  if (const KWinWindow* active = windows.activeWindow()) script_->closeWindow(active->id);
}

}  // namespace tarry::platform::kde
