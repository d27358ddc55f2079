#include "platform/wayland/sway_workspace.h"

#include "platform/linux/app_lookup.h"
#include "platform/linux/desktop_identifiers.h"
#include "platform/linux/json_fields.h"
#include "platform/linux/proc_process_info.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <set>

namespace tarry::platform::wayland {
namespace {

using os::executableOf;
using os::textOf;

void collect(const nlohmann::json& node, bool scratchpad, bool floating, std::vector<SwayView>& out) {
  const bool inScratchpad = scratchpad || textOf(node, "name") == "__i3_scratch";
  if (node.contains("pid") && node["pid"].is_number_integer()) {
    out.push_back({&node, inScratchpad, floating});
  }
  // Children front to back: in the container's focus order (most recent first), then the rest.
  std::vector<std::pair<const nlohmann::json*, bool>> children;
  for (const char* list : {"nodes", "floating_nodes"}) {
    const auto it = node.find(list);
    if (it == node.end() || !it->is_array()) continue;
    for (const nlohmann::json& child : *it)
      children.emplace_back(&child, std::string(list) == "floating_nodes");
  }
  const auto rank = [&node](const nlohmann::json& child) {
    const auto focus = node.find("focus");
    if (focus == node.end() || !focus->is_array()) return std::size_t{0};
    const auto id = child.value("id", std::int64_t{-1});
    for (std::size_t i = 0; i < focus->size(); ++i) {
      if ((*focus)[i].is_number_integer() && (*focus)[i].get<std::int64_t>() == id) return i;
    }
    return focus->size();
  };
  std::stable_sort(children.begin(), children.end(),
                   [&](const auto& a, const auto& b) { return rank(*a.first) < rank(*b.first); });
  for (const auto& [child, isFloating] : children) collect(*child, inScratchpad, floating || isFloating, out);
}

}  // namespace

std::vector<SwayView> swayViews(const nlohmann::json& tree) {
  std::vector<SwayView> out;
  collect(tree, false, false, out);
  return out;
}

std::unique_ptr<SwayWorkspace> SwayWorkspace::open(const std::string& socketPath, DesktopEntries& entries,
                                                   std::string& error, Icon ownIcon) {
  std::unique_ptr<SwayIpc> ipc = SwayIpc::connect(socketPath, error);
  if (!ipc) return nullptr;
  return std::unique_ptr<SwayWorkspace>(
      new SwayWorkspace(socketPath, std::move(ipc), entries, std::move(ownIcon)));
}

SwayWorkspace::~SwayWorkspace() {
  {
    std::lock_guard lock(watchMutex_);
    stopping_ = true;
    onActivated_ = nullptr;
    if (focusEvents_) focusEvents_->shutdown();
  }
  watchWake_.notify_all();
  if (watcher_.joinable()) watcher_.join();
}

std::optional<std::int32_t> swayFocusedPid(const nlohmann::json& windowEvent) {
  if (!windowEvent.is_object() || textOf(windowEvent, "change") != "focus") return std::nullopt;
  const auto container = windowEvent.find("container");
  if (container == windowEvent.end() || !container->is_object()) return std::nullopt;
  const auto pid = container->find("pid");
  if (pid == container->end() || !pid->is_number_integer() || pid->get<std::int64_t>() <= 0)
    return std::nullopt;
  return static_cast<std::int32_t>(pid->get<std::int64_t>());
}

void SwayWorkspace::setOnActivated(std::function<void(std::int32_t pid)> onActivated) {
  std::lock_guard lock(watchMutex_);
  onActivated_ = std::move(onActivated);
  if (onActivated_ && !watcher_.joinable() && !stopping_) watcher_ = std::thread([this] { watchFocus(); });
}

void SwayWorkspace::watchFocus() {
  // The wait before connecting again grows to a few seconds while the compositor is gone.
  constexpr auto kFirstRetry = std::chrono::milliseconds(250);
  constexpr auto kLongestRetry = std::chrono::seconds(5);
  auto retry = kFirstRetry;
  std::unique_lock lock(watchMutex_);
  while (!stopping_) {
    lock.unlock();
    std::string error;
    std::shared_ptr<SwayIpc> events = SwayIpc::connect(socketPath_, error);
    if (events && !events->send(SwayIpc::subscribe, R"(["window"])")) events.reset();
    lock.lock();
    if (events && !stopping_) {
      focusEvents_ = events;
      lock.unlock();
      retry = kFirstRetry;
      while (std::optional<SwayIpc::Message> message = events->read()) {
        if (message->type != SwayIpc::kEventWindow) continue;
        const std::optional<std::int32_t> pid = swayFocusedPid(message->body);
        if (!pid) continue;
        // Called under the lock, so that once `setOnActivated({})` returns no call is under way.
        std::lock_guard called(watchMutex_);
        if (onActivated_) onActivated_(*pid);
      }
      lock.lock();
      focusEvents_.reset();
    }
    watchWake_.wait_for(lock, retry, [this] { return stopping_; });
    retry = std::min<std::chrono::milliseconds>(retry * 2, kLongestRetry);
  }
}

RunningApp SwayWorkspace::resolve(const nlohmann::json& view) const {
  RunningApp app;
  app.pid = view.value("pid", 0);
  std::string appId = textOf(view, "app_id");
  std::string wmClass, instance;
  if (const auto props = view.find("window_properties"); props != view.end() && props->is_object()) {
    wmClass = textOf(*props, "class");
    instance = textOf(*props, "instance");
  }
  // Wayland apps name their desktop file in app_id; Xwayland ones carry WM_CLASS, as on X11.
  const std::optional<DesktopEntry> entry =
      os::entryOfNames(entries_, {appId, wmClass, instance}, {appId, wmClass});
  const std::string exe = executableOf(app.pid);
  app.bundleID = entry ? entry->id : !appId.empty() ? appId : std::filesystem::path(exe).filename().string();
  app.localizedName = entry && !entry->name.empty() ? entry->name : !appId.empty() ? appId : wmClass;
  if (app.localizedName.empty()) app.localizedName = std::filesystem::path(exe).filename().string();
  app.path = entry ? entry->path : exe;
  if (entry) app.icon.name = entry->icon;
  app.regular = true;
  return app;
}

const nlohmann::json* swayFocusedView(const nlohmann::json& tree) {
  for (const SwayView& view : swayViews(tree)) {
    if (view.node->value("focused", false)) return view.node;
  }
  // While a layer surface holds the keyboard (the HUD's keyboard watch, a launcher) no view is
  // focused; the view that gets the keyboard back is the first of each level's focus order.
  const nlohmann::json* node = &tree;
  for (int depth = 0; depth < 64 && node; ++depth) {
    if (node->contains("pid")) return node;
    const auto focus = node->find("focus");
    if (focus == node->end() || !focus->is_array() || focus->empty()) return nullptr;
    const auto next = (*focus)[0].get<std::int64_t>();
    const nlohmann::json* child = nullptr;
    for (const char* list : {"nodes", "floating_nodes"}) {
      const auto it = node->find(list);
      if (it == node->end() || !it->is_array()) continue;
      for (const nlohmann::json& candidate : *it) {
        if (candidate.value("id", std::int64_t{-1}) == next) child = &candidate;
      }
    }
    node = child;
  }
  return nullptr;
}

std::optional<RunningApp> SwayWorkspace::frontmostApplication() {
  std::optional<nlohmann::json> tree = ipc_->request(SwayIpc::getTree, "");
  if (!tree) return std::nullopt;
  if (const nlohmann::json* view = swayFocusedView(*tree)) return resolve(*view);
  return std::nullopt;
}

std::vector<RunningApp> SwayWorkspace::runningApplications() {
  std::vector<RunningApp> apps;
  std::optional<nlohmann::json> tree = ipc_->request(SwayIpc::getTree, "");
  if (!tree) return apps;
  std::set<std::int32_t> seen;
  for (const SwayView& view : swayViews(*tree)) {
    const std::int32_t pid = view.node->value("pid", 0);
    if (pid > 0 && seen.insert(pid).second) apps.push_back(resolve(*view.node));
  }
  return apps;
}

bool SwayWorkspace::terminate(const RunningApp& app) {
  if (app.pid <= 0) return false;
  return ipc_->command("[pid=" + std::to_string(app.pid) + "] kill");
}

bool SwayWorkspace::isTerminated(std::int32_t pid) { return os::processEnded(pid); }

std::int32_t SwayWorkspace::ownPid() const { return static_cast<std::int32_t>(getpid()); }

std::vector<std::string> SwayWorkspace::identifierEquivalents(IdentifierSet set) const {
  return os::linuxIdentifierEquivalents(set);
}

std::vector<WindowInfo> SwayWorkspace::windowsOf(std::int32_t pid) {
  std::vector<WindowInfo> windows;
  std::optional<nlohmann::json> tree = ipc_->request(SwayIpc::getTree, "");
  if (!tree) return windows;
  for (const SwayView& view : swayViews(*tree)) {
    if (view.node->value("pid", 0) != pid) continue;
    WindowInfo info;
    info.id = view.node->value("id", 0U);
    info.title = textOf(*view.node, "name");
    if (const auto rect = view.node->find("rect"); rect != view.node->end() && rect->is_object()) {
      info.x = rect->value("x", 0.0);
      info.y = rect->value("y", 0.0);
      info.width = rect->value("width", 0.0);
      info.height = rect->value("height", 0.0);
    }
    info.minimized = view.scratchpad;
    windows.push_back(std::move(info));
  }
  return windows;
}

bool SwayWorkspace::setFrame(std::uint32_t id, double x, double y, double width, double height,
                             bool minimized) {
  std::optional<nlohmann::json> tree = ipc_->request(SwayIpc::getTree, "");
  if (!tree) return false;
  for (const SwayView& view : swayViews(*tree)) {
    if (view.node->value("id", 0U) != id) continue;
    const std::string target = "[con_id=" + std::to_string(id) + "] ";
    if (minimized) return view.scratchpad || ipc_->command(target + "move scratchpad");
    // `scratchpad show` brings a view back floating, where the frame then applies.
    const bool floating = view.floating || view.scratchpad;
    if (view.scratchpad && !ipc_->command(target + "scratchpad show")) return false;
    if (!floating) return true;
    const auto px = [](double v) { return std::to_string(static_cast<long>(v)); };
    return ipc_->command(target + "move absolute position " + px(x) + " " + px(y) + "; " + target +
                         "resize set width " + px(width) + " px height " + px(height) + " px");
  }
  return false;
}

}  // namespace tarry::platform::wayland
