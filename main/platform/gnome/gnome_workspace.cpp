#include "platform/gnome/gnome_workspace.h"

#include "platform/linux/app_lookup.h"
#include "platform/linux/desktop_identifiers.h"
#include "platform/linux/json_fields.h"
#include "platform/linux/proc_process_info.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <set>

namespace tarry::platform::gnome {
namespace {

using os::executableOf;
using os::numberOf;
using os::textOf;

bool flagOf(const nlohmann::json& object, const char* key, bool otherwise) {
  const auto it = object.find(key);
  return it != object.end() && it->is_boolean() ? it->get<bool>() : otherwise;
}

std::optional<nlohmann::json> parse(const std::optional<QVariantList>& reply) {
  if (!reply || reply->isEmpty()) return std::nullopt;
  const std::string text = reply->first().toString().toStdString();
  if (text.empty()) return std::nullopt;
  nlohmann::json json = nlohmann::json::parse(text, nullptr, false);
  if (json.is_discarded()) return std::nullopt;
  return json;
}

}  // namespace

std::optional<GnomeWindow> gnomeWindowOf(const nlohmann::json& json) {
  if (!json.is_object() || !json.contains("id") || !json["id"].is_number_unsigned()) return std::nullopt;
  GnomeWindow w;
  w.id = json["id"].get<std::uint32_t>();
  w.pid = static_cast<std::int32_t>(numberOf(json, "pid"));
  if (w.pid <= 0) return std::nullopt;
  w.wmClass = textOf(json, "wmClass");
  w.gtkAppId = textOf(json, "gtkAppId");
  w.sandboxedAppId = textOf(json, "sandboxedAppId");
  w.desktopId = textOf(json, "desktopId");
  w.title = textOf(json, "title");
  w.x = numberOf(json, "x");
  w.y = numberOf(json, "y");
  w.width = numberOf(json, "width");
  w.height = numberOf(json, "height");
  w.minimized = flagOf(json, "minimized", false);
  w.focused = flagOf(json, "focused", false);
  w.normal = flagOf(json, "normal", true);
  return w;
}

std::vector<std::string> gnomeEntryNames(const GnomeWindow& window) {
  std::vector<std::string> names;
  const auto add = [&names](std::string name) {
    if (!name.empty() && std::find(names.begin(), names.end(), name) == names.end())
      names.push_back(std::move(name));
  };
  std::string desktop = window.desktopId;
  if (desktop.starts_with("window:")) desktop.clear();  // the Shell knew no desktop file
  if (desktop.ends_with(".desktop")) desktop.resize(desktop.size() - 8);
  add(desktop);
  add(window.sandboxedAppId);
  add(window.gtkAppId);
  add(window.wmClass);
  return names;
}

std::vector<GnomeWindow> GnomeWorkspace::windows() const {
  std::vector<GnomeWindow> out;
  const std::optional<nlohmann::json> list = parse(shell_.call(QStringLiteral("Windows")));
  if (!list || !list->is_array()) return out;
  for (const nlohmann::json& item : *list) {
    if (std::optional<GnomeWindow> w = gnomeWindowOf(item)) out.push_back(std::move(*w));
  }
  return out;
}

RunningApp GnomeWorkspace::resolve(const GnomeWindow& window) const {
  RunningApp app;
  app.pid = window.pid;
  const std::vector<std::string> names = gnomeEntryNames(window);
  const std::optional<DesktopEntry> entry = os::entryOfNames(entries_, names, names);
  const std::string exe = executableOf(app.pid);
  const std::string fallback = names.empty() ? std::filesystem::path(exe).filename().string() : names.front();
  app.bundleID = entry ? entry->id : fallback;
  app.localizedName = entry && !entry->name.empty() ? entry->name : fallback;
  app.path = entry ? entry->path : exe;
  if (entry) app.icon.name = entry->icon;
  app.regular = window.normal;
  return app;
}

std::optional<RunningApp> GnomeWorkspace::frontmostApplication() {
  // A press carries the window it was made in; asked from anywhere else, the Shell answers.
  const std::optional<std::string> pressed = shell_.windowAtPress();
  const std::optional<QVariantList> reply =
      pressed ? QVariantList{QString::fromStdString(*pressed)} : shell_.call(QStringLiteral("FocusedWindow"));
  const std::optional<nlohmann::json> json = parse(reply);
  if (!json) return std::nullopt;
  const std::optional<GnomeWindow> window = gnomeWindowOf(*json);
  if (!window) return std::nullopt;
  return resolve(*window);
}

std::vector<RunningApp> GnomeWorkspace::runningApplications() {
  std::vector<RunningApp> apps;
  std::set<std::int32_t> seen;
  for (const GnomeWindow& window : windows()) {
    if (seen.insert(window.pid).second) apps.push_back(resolve(window));
  }
  return apps;
}

bool GnomeWorkspace::terminate(const RunningApp& app) {
  if (app.pid <= 0) return false;
  const std::optional<QVariantList> reply = shell_.call(QStringLiteral("Close"), {app.pid});
  return reply && !reply->isEmpty() && reply->first().toBool();
}

bool GnomeWorkspace::isTerminated(std::int32_t pid) { return os::processEnded(pid); }

std::int32_t GnomeWorkspace::ownPid() const { return static_cast<std::int32_t>(getpid()); }

std::vector<std::string> GnomeWorkspace::identifierEquivalents(IdentifierSet set) const {
  return os::linuxIdentifierEquivalents(set);
}

void GnomeWorkspace::setOnActivated(std::function<void(std::int32_t pid)> onActivated) {
  shell_.setOnActivated(std::move(onActivated));
}

std::vector<WindowInfo> GnomeWorkspace::windowsOf(std::int32_t pid) {
  std::vector<WindowInfo> out;
  for (const GnomeWindow& window : windows()) {
    if (window.pid != pid || !window.normal) continue;
    WindowInfo info;
    info.id = window.id;
    info.title = window.title;
    info.x = window.x;
    info.y = window.y;
    info.width = window.width;
    info.height = window.height;
    info.minimized = window.minimized;
    out.push_back(std::move(info));
  }
  return out;
}

bool GnomeWorkspace::setFrame(std::uint32_t id, double x, double y, double width, double height,
                              bool minimized) {
  const auto px = [](double v) { return static_cast<int>(v); };
  const std::optional<QVariantList> reply =
      shell_.call(QStringLiteral("SetFrame"), {id, px(x), px(y), px(width), px(height), minimized});
  return reply && !reply->isEmpty() && reply->first().toBool();
}

}  // namespace tarry::platform::gnome
