// The sway backend's pieces that need no compositor: what its bindings stand for, how it reads
// the compositor's tree, and what it asks over the IPC (against a small fake of the socket).

#include "desktop/session.h"
#include "guard/guard.h"
#include "platform/sim/sim_desktop_entries.h"
#include "platform/wayland/sway_event_tap.h"
#include "platform/wayland/sway_ipc.h"
#include "platform/wayland/sway_workspace.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <thread>

namespace tarry::platform::wayland {
namespace {

std::vector<std::string> split(const std::string& text, char sep) {
  std::vector<std::string> out;
  std::stringstream in(text);
  for (std::string part; std::getline(in, part, sep);) {
    if (!part.empty()) out.push_back(part);
  }
  return out;
}

TEST(SwayBindings, EveryBindingFiresAnEventTheGuardUnderstandsAndOnlyPressBindingsAreRemoved) {
  const std::vector<std::string> binds = split(swayBindCommands(), ';');
  std::vector<std::string> unbinds = split(swayUnbindCommands(), ';');
  // Four combinations, each pressed and released, each by keysym and by key.
  ASSERT_EQ(binds.size(), 16U);
  std::map<std::string, std::optional<guard::Combo>> classified;
  std::set<std::string> forms;
  for (const std::string& bind : binds) {
    // "bindsym <--no-repeat|--release> [--to-code] <keys> nop tarry-guard <down|up> <word>"
    const std::vector<std::string> words = split(bind, ' ');
    ASSERT_GE(words.size(), 7U) << bind;
    const std::size_t nop = words.size() - 4;
    ASSERT_EQ(words[nop], "nop") << bind;
    std::string flags;
    for (std::size_t i = 1; i + 1 < nop; ++i) flags += words[i] + " ";
    forms.insert(flags + words[nop - 1]);
    // Press bindings must go with the program; release bindings must never be removed (sway 1.7
    // crashes when a release binding whose keys are held goes away).
    const std::string unbind = "unbindsym " + flags + words[nop - 1];
    const bool removed = std::find(unbinds.begin(), unbinds.end(), unbind) != unbinds.end();
    EXPECT_EQ(removed, words[1] == "--no-repeat") << bind;
    const std::optional<KeyEvent> event =
        keyEventOfBinding(words[nop] + " " + words[nop + 1] + " " + words[nop + 2] + " " + words[nop + 3]);
    ASSERT_TRUE(event) << bind;
    EXPECT_EQ(event->type, words[1] == "--release" ? EventType::keyUp : EventType::keyDown) << bind;
    if (event->type == EventType::keyDown) classified[words[nop + 3]] = guard::Guard::classify(*event);
  }
  EXPECT_EQ(forms.size(), binds.size()) << "a binding is made twice";
  EXPECT_EQ(forms.count("--no-repeat --to-code Ctrl+q"), 1U);
  EXPECT_EQ(unbinds.size(), 8U);
  EXPECT_EQ(classified["quit"], guard::Combo::quit);
  EXPECT_EQ(classified["close"], guard::Combo::close);
  EXPECT_EQ(classified["logout"], guard::Combo::logout);
  // The undo hot key is Command+Option and types "z" without modifiers; it is no guarded combination.
  EXPECT_EQ(classified["undo"], std::nullopt);
  const std::optional<KeyEvent> undo = keyEventOfBinding("nop tarry-guard down undo");
  EXPECT_EQ(undo->flags, kFlagCommand | kFlagOption);
  EXPECT_EQ(undo->unmodifiedText, u"z");

  for (const char* foreign : {"nop something else", "exec foot", "nop tarry-guard sideways quit",
                              "nop tarry-guard down reboot", "nop tarry-guard"}) {
    EXPECT_FALSE(keyEventOfBinding(foreign)) << foreign;
  }
}

nlohmann::json view(int id, int pid, const std::string& appId, bool focused = false) {
  return {{"id", id},
          {"type", "con"},
          {"pid", pid},
          {"app_id", appId.empty() ? nlohmann::json() : nlohmann::json(appId)},
          {"focused", focused},
          {"name", "window " + std::to_string(id)},
          {"rect", {{"x", id * 10}, {"y", 20}, {"width", 300}, {"height", 200}}},
          {"nodes", nlohmann::json::array()},
          {"floating_nodes", nlohmann::json::array()}};
}

/// root → (scratchpad output with one view), output → workspace 1 with views 11 and 12 (12 focused)
/// and a floating view 13 (an Xwayland window).
nlohmann::json tree() {
  nlohmann::json xwayland = view(13, 300, "");
  xwayland["window_properties"] = {{"class", "Gimp-2.10"}, {"instance", "gimp"}};
  nlohmann::json workspace = {{"id", 4},
                              {"type", "workspace"},
                              {"name", "1"},
                              {"focus", {12, 11, 13}},
                              {"nodes", {view(11, 100, "org.gnome.TextEditor"), view(12, 200, "foot", true)}},
                              {"floating_nodes", {xwayland}}};
  nlohmann::json scratch = {{"id", 9},
                            {"type", "workspace"},
                            {"name", "__i3_scratch"},
                            {"nodes", nlohmann::json::array()},
                            {"floating_nodes", {view(14, 100, "org.gnome.TextEditor")}}};
  return {
      {"id", 1},
      {"type", "root"},
      {"focus", {3, 2}},
      {"nodes",
       {{{"id", 2}, {"type", "output"}, {"name", "__i3"}, {"nodes", {scratch}}},
        {{"id", 3}, {"type", "output"}, {"name", "HEADLESS-1"}, {"focus", {4}}, {"nodes", {workspace}}}}}};
}

void clearFocus(nlohmann::json& node) {
  if (node.contains("focused")) node["focused"] = false;
  for (const char* list : {"nodes", "floating_nodes"}) {
    if (node.contains(list)) {
      for (nlohmann::json& child : node[list]) clearFocus(child);
    }
  }
}

TEST(SwayTree, ViewsAndTheFocusedOneAlsoWhileALayerSurfaceHasTheKeyboard) {
  nlohmann::json t = tree();
  std::map<int, std::pair<bool, bool>> seen;  // id → (scratchpad, floating)
  for (const SwayView& v : swayViews(t)) seen[v.node->value("id", 0)] = {v.scratchpad, v.floating};
  EXPECT_EQ(seen, (std::map<int, std::pair<bool, bool>>{
                      {11, {false, false}}, {12, {false, false}}, {13, {false, true}}, {14, {true, true}}}));

  ASSERT_NE(swayFocusedView(t), nullptr);
  EXPECT_EQ(swayFocusedView(t)->value("id", 0), 12);
  // No view is focused while a layer surface holds the keyboard: the focus order still names one.
  clearFocus(t);
  t["nodes"][1]["nodes"][0]["focus"] = {11, 12, 13};
  ASSERT_NE(swayFocusedView(t), nullptr);
  EXPECT_EQ(swayFocusedView(t)->value("id", 0), 11);
  // A focused empty workspace: nobody is frontmost.
  t["nodes"][1]["nodes"][0]["focus"] = nlohmann::json::array();
  EXPECT_EQ(swayFocusedView(t), nullptr);
}

/// A stand-in for the compositor's IPC socket: answers each request with `answer(type, payload)`,
/// keeps the payloads it was sent, and sends events to the clients that subscribed.
class FakeSway {
 public:
  using Answer = std::function<std::string(std::uint32_t, const std::string&)>;

  explicit FakeSway(Answer answer) : answer_(std::move(answer)) {
    char dir[] = "/tmp/tarry-fake-sway-XXXXXX";
    dir_ = mkdtemp(dir);
    path_ = dir_ + "/ipc.sock";
    listener_ = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path_.c_str());
    bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
    listen(listener_, 4);
    acceptor_ = std::thread([this] { acceptClients(); });
  }
  ~FakeSway() {
    shutdown(listener_, SHUT_RDWR);
    acceptor_.join();
    close(listener_);
    dropClients();
    unlink(path_.c_str());
    rmdir(dir_.c_str());
  }
  FakeSway(const FakeSway&) = delete;
  FakeSway& operator=(const FakeSway&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }
  [[nodiscard]] std::vector<std::string> commands() {
    std::lock_guard lock(mutex_);
    return commands_;
  }
  /// Sends an event to every client subscribed to it; how many got it.
  int emit(std::uint32_t type, const std::string& name, const nlohmann::json& body) {
    std::lock_guard lock(mutex_);
    int sent = 0;
    for (auto& [fd, events] : subscriptions_) {
      if (events.find(name) != std::string::npos) sent += reply(fd, type, body.dump()) ? 1 : 0;
    }
    return sent;
  }
  /// Hangs up on every client, as a compositor that goes away.
  void dropClients() {
    std::vector<std::pair<int, std::thread>> gone;
    {
      std::lock_guard lock(mutex_);
      gone.swap(clients_);
      for (const auto& client : gone) shutdown(client.first, SHUT_RDWR);
    }
    for (auto& [fd, thread] : gone) thread.join();
    std::lock_guard lock(mutex_);
    for (const auto& client : gone) {
      subscriptions_.erase(client.first);
      close(client.first);
    }
  }

 private:
  static bool reply(int fd, std::uint32_t type, const std::string& body) {
    std::string message = "i3-ipc";
    const auto size = static_cast<std::uint32_t>(body.size());
    message.append(reinterpret_cast<const char*>(&size), 4);
    message.append(reinterpret_cast<const char*>(&type), 4);
    message += body;
    return send(fd, message.data(), message.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(message.size());
  }

  void acceptClients() {
    for (;;) {
      const int fd = accept(listener_, nullptr, nullptr);
      if (fd < 0) return;
      std::lock_guard lock(mutex_);
      clients_.emplace_back(fd, std::thread([this, fd] { serve(fd); }));
    }
  }

  void serve(int fd) {
    char header[14];
    while (recv(fd, header, sizeof header, MSG_WAITALL) == sizeof header) {
      std::uint32_t length = 0, type = 0;
      std::memcpy(&length, header + 6, 4);
      std::memcpy(&type, header + 10, 4);
      std::string payload(length, '\0');
      if (length && recv(fd, payload.data(), length, MSG_WAITALL) != static_cast<ssize_t>(length)) break;
      std::lock_guard lock(mutex_);
      if (type == SwayIpc::runCommand) commands_.push_back(payload);
      if (type == SwayIpc::subscribe) subscriptions_[fd] += payload;
      reply(fd, type, type == SwayIpc::subscribe ? R"({"success":true})" : answer_(type, payload));
    }
  }

  Answer answer_;
  std::string dir_, path_;
  int listener_ = -1;
  std::thread acceptor_;
  std::mutex mutex_;
  std::vector<std::pair<int, std::thread>> clients_;
  std::map<int, std::string> subscriptions_;  // client → the event names it asked for
  std::vector<std::string> commands_;
};

TEST(SwayWorkspace, AppsFromTheTreeAndWhatItAsksOfTheCompositor) {
  FakeSway sway([](std::uint32_t type, const std::string& payload) {
    if (type == SwayIpc::getTree) return tree().dump();
    if (payload.starts_with("[con_id=99]"))
      return std::string(R"([{"success":false,"error":"No matching node"}])");
    return std::string(R"([{"success":true},{"success":true}])");
  });
  sim::SimDesktopEntries entries;
  entries.install({"org.gnome.TextEditor",
                   "/usr/share/applications/org.gnome.TextEditor.desktop",
                   "Text Editor",
                   "org.gnome.TextEditor",
                   "gnome-text-editor %U",
                   "",
                   false,
                   false,
                   "",
                   false,
                   {}});
  entries.install({"gimp",
                   "/usr/share/applications/gimp.desktop",
                   "GNU Image Manipulation Program",
                   "gimp",
                   "gimp-2.10 %U",
                   "Gimp-2.10",
                   false,
                   false,
                   "",
                   false,
                   {}});
  std::string error;
  std::unique_ptr<SwayWorkspace> workspace = SwayWorkspace::open(sway.path(), entries, error);
  ASSERT_TRUE(workspace) << error;

  const std::optional<RunningApp> front = workspace->frontmostApplication();
  ASSERT_TRUE(front);
  EXPECT_EQ(front->bundleID, "foot");  // no entry installed here: the app id itself
  EXPECT_EQ(front->pid, 200);

  std::map<std::int32_t, RunningApp> apps;
  for (const RunningApp& app : workspace->runningApplications()) apps[app.pid] = app;
  ASSERT_EQ(apps.size(), 3U);  // the editor's two views are one app
  EXPECT_EQ(apps[100].bundleID, "org.gnome.TextEditor");
  EXPECT_EQ(apps[100].localizedName, "Text Editor");
  EXPECT_EQ(apps[100].icon.name, "org.gnome.TextEditor");
  EXPECT_EQ(apps[100].path, "/usr/share/applications/org.gnome.TextEditor.desktop");
  // An Xwayland window is found by its WM_CLASS, as on X11.
  EXPECT_EQ(apps[300].bundleID, "gimp");

  const std::vector<WindowInfo> windows = workspace->windowsOf(100);
  ASSERT_EQ(windows.size(), 2U);
  EXPECT_EQ(windows[0].title, "window 11");
  EXPECT_EQ(windows[0].x, 110);
  EXPECT_FALSE(windows[0].minimized);
  EXPECT_TRUE(windows[1].minimized);  // in the scratchpad

  EXPECT_TRUE(workspace->terminate(apps[100]));
  EXPECT_TRUE(workspace->setFrame(13, 5, 6, 400, 300, false));  // floating: moved and resized
  EXPECT_TRUE(workspace->setFrame(11, 5, 6, 400, 300, false));  // tiled: the layout decides
  EXPECT_TRUE(workspace->setFrame(14, 0, 0, 1, 1, true));       // already in the scratchpad
  EXPECT_TRUE(workspace->setFrame(12, 0, 0, 1, 1, true));
  EXPECT_FALSE(workspace->setFrame(99, 0, 0, 1, 1, false));  // no such window
  EXPECT_EQ(sway.commands(),
            (std::vector<std::string>{
                "[pid=100] kill",
                "[con_id=13] move absolute position 5 6; [con_id=13] resize set width 400 px height 300 px",
                "[con_id=12] move scratchpad",
            }));

  std::unique_ptr<SwayIpc> ipc = SwayIpc::connect(sway.path() + ".missing", error);
  EXPECT_FALSE(ipc);
  EXPECT_NE(error.find("does not answer"), std::string::npos) << error;
}

/// Waits up to 5 s for `done`, trying again every 10 ms.
bool eventually(const std::function<bool()>& done) {
  for (int i = 0; i < 500; ++i) {
    if (done()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return done();
}

TEST(SwayWorkspace, FocusEventsNameTheActivatedAppAlsoAfterTheCompositorCameBack) {
  FakeSway sway([](std::uint32_t, const std::string&) { return std::string("[]"); });
  sim::SimDesktopEntries entries;
  std::string error;
  std::unique_ptr<SwayWorkspace> workspace = SwayWorkspace::open(sway.path(), entries, error);
  ASSERT_TRUE(workspace) << error;
  std::mutex mutex;
  std::vector<std::int32_t> activated;
  const auto seen = [&] {
    std::lock_guard lock(mutex);
    return activated;
  };
  workspace->setOnActivated([&](std::int32_t pid) {
    std::lock_guard lock(mutex);
    activated.push_back(pid);
  });
  const auto window = [](const char* change, nlohmann::json container) {
    return nlohmann::json{{"change", change}, {"container", std::move(container)}};
  };
  ASSERT_TRUE(eventually([&] {
    return sway.emit(SwayIpc::kEventWindow, "window", window("focus", {{"id", 5}, {"pid", 4242}})) == 1;
  }));
  // Only focus changes of views with a process count.
  sway.emit(SwayIpc::kEventWindow, "window", window("title", {{"id", 5}, {"pid", 77}}));
  sway.emit(SwayIpc::kEventWindow, "window", window("focus", {{"id", 6}}));
  sway.emit(SwayIpc::kEventWindow, "window", window("focus", {{"id", 7}, {"pid", 4343}}));
  ASSERT_TRUE(eventually([&] { return seen().size() >= 2; }));
  EXPECT_EQ(seen(), (std::vector<std::int32_t>{4242, 4343}));

  // The compositor restarts: the watcher connects and subscribes again by itself.
  sway.dropClients();
  ASSERT_TRUE(eventually([&] {
    return sway.emit(SwayIpc::kEventWindow, "window", window("focus", {{"id", 8}, {"pid", 5151}})) == 1;
  }));
  ASSERT_TRUE(eventually([&] { return seen().size() >= 3; }));
  EXPECT_EQ(seen().back(), 5151);

  // An empty function stops the calls at once; the watcher ends with the workspace.
  workspace->setOnActivated({});
  sway.emit(SwayIpc::kEventWindow, "window", window("focus", {{"id", 9}, {"pid", 6161}}));
  workspace.reset();
  EXPECT_EQ(seen().size(), 3U);
}

TEST(SwayIpc, ACommandReportsTheFirstFailure) {
  FakeSway sway([](std::uint32_t, const std::string&) {
    return std::string(R"([{"success":true},{"success":false,"error":"Unknown/invalid command 'frob'"}])");
  });
  std::string error;
  std::unique_ptr<SwayIpc> ipc = SwayIpc::connect(sway.path(), error);
  ASSERT_TRUE(ipc) << error;
  EXPECT_FALSE(ipc->command("nop; frob", &error));
  EXPECT_EQ(error, "Unknown/invalid command 'frob'");
}

TEST(Session, ThePlatformDecidesTheBackendsAndOtherWaylandDesktopsAreNamed) {
  using Kind = desktop::Session::Kind;
  const auto detect = [](std::map<std::string, std::string> env) {
    return desktop::detectSession([env](const char* name) -> const char* {
      const auto it = env.find(name);
      return it == env.end() ? nullptr : it->second.c_str();
    });
  };
  EXPECT_EQ(detect({{"DISPLAY", ":0"}}).kind, Kind::x11);
  EXPECT_EQ(detect({}).kind, Kind::none);
  // Inside a Wayland session the X display is Xwayland's: its grabs would see only X clients.
  EXPECT_EQ(detect({{"DISPLAY", ":0"}, {"WAYLAND_DISPLAY", "wayland-1"}, {"SWAYSOCK", "/run/s.sock"}}).kind,
            Kind::sway);
  // GNOME on Wayland by any of the names distributions give it; on Xorg it keeps the X11 backends.
  EXPECT_EQ(
      detect({{"DISPLAY", ":0"}, {"WAYLAND_DISPLAY", "wayland-0"}, {"XDG_CURRENT_DESKTOP", "GNOME"}}).kind,
      Kind::gnome);
  EXPECT_EQ(detect({{"XDG_SESSION_TYPE", "wayland"}, {"XDG_CURRENT_DESKTOP", "ubuntu:GNOME"}}).kind,
            Kind::gnome);
  EXPECT_EQ(detect({{"DISPLAY", ":0"}, {"XDG_SESSION_TYPE", "x11"}, {"XDG_CURRENT_DESKTOP", "GNOME"}}).kind,
            Kind::x11);
  EXPECT_EQ(detect({{"XDG_SESSION_TYPE", "wayland"}, {"XDG_CURRENT_DESKTOP", "KDE"}}).kind, Kind::kde);
  EXPECT_EQ(detect({{"WAYLAND_DISPLAY", "wayland-0"}, {"XDG_CURRENT_DESKTOP", "ubuntu:KDE"}}).kind,
            Kind::kde);
  // Plasma on X11 keeps the X11 backends.
  EXPECT_EQ(detect({{"DISPLAY", ":0"}, {"XDG_SESSION_TYPE", "x11"}, {"XDG_CURRENT_DESKTOP", "KDE"}}).kind,
            Kind::x11);
  const desktop::Session other =
      detect({{"WAYLAND_DISPLAY", "wayland-0"}, {"XDG_CURRENT_DESKTOP", "GNOME-Flashback:Unity"}});
  EXPECT_EQ(other.kind, Kind::otherWayland);
  EXPECT_TRUE(desktop::unsupportedWaylandText(other.desktop)
                  .starts_with("this Wayland desktop is not supported yet: GNOME-Flashback:Unity"));
}

}  // namespace
}  // namespace tarry::platform::wayland
