#include "platform/x11/x11_workspace.h"

#include "platform/linux/desktop_entry_reader.h"
#include "platform/x11/x11_window_list.h"

#include "linux/temp_dir.h"
#include "x_server.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>

namespace tarry::platform::x11 {
namespace {

using ::tarry::testing::eventually;
using testing::TempDir;

/// A running tarry-test-client, ready once its windows are mapped.
struct Client {
  Client(const test::XServer& server, const TempDir& dir, const std::string& name,
         std::vector<std::string> args)
      : log(dir / (name + ".log")) {
    std::vector<std::string> argv{TARRY_TEST_CLIENT, "--log", log};
    argv.insert(argv.end(), args.begin(), args.end());
    process = std::make_unique<test::Process>(server.display(), argv);
    ready = eventually([&] { return !windows().empty(); });
  }
  /// The window ids from the "ready" line.
  std::vector<std::uint32_t> windows() const {
    std::ifstream in(log);
    std::string line;
    while (std::getline(in, line)) {
      std::istringstream words(line);
      std::string at, what;
      words >> at >> what;
      if (what != "ready") continue;
      std::vector<std::uint32_t> ids;
      for (std::uint32_t id = 0; words >> id;) ids.push_back(id);
      return ids;
    }
    return {};
  }
  std::int32_t pid() const { return process->pid(); }

  std::string log;
  std::unique_ptr<test::Process> process;
  bool ready = false;
};

class X11WorkspaceTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { server_ = new test::XServer(true); }
  static void TearDownTestSuite() { delete server_; }

  void SetUp() override {
    ASSERT_TRUE(server_->ok());
    std::filesystem::create_directories(dir_ / "applications");
    std::ofstream(dir_ / "applications/org.example.Alpha.desktop")
        << "[Desktop Entry]\nType=Application\nName=Alpha Editor\nName[de]=Alpha-Editor\n"
           "Exec=alpha %F\nIcon=alpha-icon\nStartupWMClass=AlphaClass\n";
    std::string error;
    display_ = X11Display::open(server_->display(), error);
    ASSERT_NE(display_, nullptr) << error;
    entries_ = std::make_unique<os::DesktopEntryReader>(std::vector<std::string>{dir_.path()});
    workspace_ = std::make_unique<X11Workspace>(*display_, *entries_);
  }
  void TearDown() override {
    workspace_.reset();
    display_.reset();
  }

  void activate(std::uint32_t window) {
    ASSERT_EQ(server_->run({"xdotool", "windowactivate", "--sync", std::to_string(window)}), 0);
  }
  /// The frontmost app once it is the one with `pid`.
  std::optional<RunningApp> frontmostOnce(std::int32_t pid) {
    std::optional<RunningApp> app;
    eventually([&] {
      app = workspace_->frontmostApplication();
      return app && app->pid == pid;
    });
    return app;
  }

  static test::XServer* server_;
  TempDir dir_;
  std::unique_ptr<X11Display> display_;
  std::unique_ptr<os::DesktopEntryReader> entries_;
  std::unique_ptr<X11Workspace> workspace_;
};

test::XServer* X11WorkspaceTest::server_ = nullptr;

TEST_F(X11WorkspaceTest, FrontmostFollowsActivationAndNamesTheAppByItsDesktopEntry) {
  Client alpha(*server_, dir_, "alpha", {"--class", "alpha,AlphaClass"});
  Client beta(*server_, dir_, "beta", {"--class", "beta,Beta", "--icon", "16,32,128"});
  Client gamma(*server_, dir_, "gamma", {"--class", "gamma,Gamma", "--gtk-app-id", "org.example.Gamma"});
  ASSERT_TRUE(alpha.ready && beta.ready && gamma.ready);

  activate(alpha.windows()[0]);
  auto app = frontmostOnce(alpha.pid());
  ASSERT_TRUE(app);
  EXPECT_EQ(app->bundleID, "org.example.Alpha");
  EXPECT_EQ(app->localizedName, "Alpha Editor");
  EXPECT_EQ(app->path, dir_ / "applications/org.example.Alpha.desktop");
  EXPECT_TRUE(app->regular);

  // No entry: WM_CLASS gives the id and the name, the window its icon.
  activate(beta.windows()[0]);
  app = frontmostOnce(beta.pid());
  ASSERT_TRUE(app);
  EXPECT_EQ(app->bundleID, "Beta");
  EXPECT_EQ(app->localizedName, "Beta");
  EXPECT_EQ(app->icon.width, 32) << "largest image no larger than 64 px";
  ASSERT_TRUE(app->icon.argb);
  EXPECT_EQ(app->icon.argb->size(), 32U * 32U);

  activate(gamma.windows()[0]);
  app = frontmostOnce(gamma.pid());
  ASSERT_TRUE(app);
  EXPECT_EQ(app->bundleID, "org.example.Gamma");

  // A toolkit's generic class names no program: a non-interpreter falls back to its executable.
  Client tk(*server_, dir_, "tk", {"--class", "tk,Tk"});
  ASSERT_TRUE(tk.ready);
  activate(tk.windows()[0]);
  app = frontmostOnce(tk.pid());
  ASSERT_TRUE(app);
  EXPECT_EQ(app->bundleID, "tarry-test-client");
}

TEST(ScriptName, NamesTheScriptAnInterpreterRuns) {
  EXPECT_EQ(scriptNameOf({"/usr/bin/python3.11", "-u", "/home/a/bin/notes_pad.py"}), "notes_pad");
  EXPECT_EQ(scriptNameOf({"python3", "-m", "notes.app"}), "notes.app");
  EXPECT_EQ(scriptNameOf({"java", "-jar", "/opt/tool/Tool.jar"}), "Tool");
  EXPECT_EQ(scriptNameOf({"python3", "-c", "import tkinter"}), "");
  EXPECT_EQ(scriptNameOf({"/usr/bin/mousepad", "notes.txt"}), "")
      << "not an interpreter: its own name is the id";
}

TEST_F(X11WorkspaceTest, RunningAppsTellRegularFromPanelsAndTerminateAsksPolitely) {
  Client editor(*server_, dir_, "editor", {"--class", "alpha,AlphaClass", "--windows", "2"});
  Client panel(*server_, dir_, "panel", {"--class", "panel,Panel", "--type", "dock"});
  Client desktop(*server_, dir_, "desktop", {"--class", "desk,Desk", "--type", "desktop"});
  Client hidden(*server_, dir_, "hidden", {"--class", "hid,Hid", "--skip-taskbar"});
  ASSERT_TRUE(editor.ready && panel.ready && desktop.ready && hidden.ready);

  std::vector<RunningApp> apps;
  const auto find = [&](std::int32_t pid) -> const RunningApp* {
    for (const RunningApp& a : apps) {
      if (a.pid == pid) return &a;
    }
    return nullptr;
  };
  ASSERT_TRUE(eventually([&] {
    apps = workspace_->runningApplications();
    return find(editor.pid()) && find(panel.pid()) && find(desktop.pid()) && find(hidden.pid());
  }));
  EXPECT_TRUE(find(editor.pid())->regular);
  EXPECT_FALSE(find(panel.pid())->regular);
  EXPECT_FALSE(find(hidden.pid())->regular);
  // The desktop plays the Dock: its identifier is one of the dock equivalents.
  const auto dock = workspace_->identifierEquivalents(IdentifierSet::dock);
  EXPECT_NE(std::find(dock.begin(), dock.end(), find(desktop.pid())->bundleID), dock.end());
  EXPECT_NE(std::find(dock.begin(), dock.end(), find(panel.pid())->bundleID), dock.end());
  EXPECT_EQ(
      std::count_if(apps.begin(), apps.end(), [&](const RunningApp& a) { return a.pid == editor.pid(); }), 1);

  // Both windows get a close request; the app ends by itself once the last one closes.
  EXPECT_TRUE(workspace_->terminate(*find(editor.pid())));
  EXPECT_TRUE(editor.process->waitExit(10)) << [&] {
    std::ifstream in(editor.log);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }();
  EXPECT_TRUE(workspace_->isTerminated(editor.pid()));
  EXPECT_FALSE(workspace_->isTerminated(panel.pid()));
  EXPECT_FALSE(workspace_->terminate(RunningApp{}));
}

TEST_F(X11WorkspaceTest, WindowListReadsAndSetsFramesAndMinimizing) {
  Client docs(*server_, dir_, "docs", {"--title", "Doc", "--windows", "2"});
  ASSERT_TRUE(docs.ready);
  X11WindowList list(*display_);
  std::vector<WindowInfo> windows;
  ASSERT_TRUE(eventually([&] {
    windows = list.windowsOf(docs.pid());
    return windows.size() == 2;
  }));
  // Topmost first: the second window was mapped last.
  EXPECT_EQ(windows[0].title, "Doc 2");
  EXPECT_EQ(windows[1].title, "Doc 1");
  EXPECT_GE(windows[0].width, 400) << "the frame holds the 400 px client";
  EXPECT_GT(windows[0].height, 300) << "and its title bar";

  const std::uint32_t id = windows[1].id;
  const auto frameIs = [&](double x, double y, double w, double h) {
    for (const WindowInfo& info : list.windowsOf(docs.pid())) {
      if (info.id == id) {
        return std::abs(info.x - x) <= 1 && std::abs(info.y - y) <= 1 && std::abs(info.width - w) <= 1 &&
               std::abs(info.height - h) <= 1;
      }
    }
    return false;
  };
  ASSERT_TRUE(list.setFrame(id, 100, 120, 500, 420, false));
  EXPECT_TRUE(eventually([&] { return frameIs(100, 120, 500, 420); }));

  const auto minimized = [&] {
    for (const WindowInfo& info : list.windowsOf(docs.pid())) {
      if (info.id == id) return info.minimized;
    }
    return false;
  };
  ASSERT_TRUE(list.setFrame(id, 100, 120, 500, 420, true));
  EXPECT_TRUE(eventually(minimized));
  ASSERT_TRUE(list.setFrame(id, 60, 80, 480, 400, false));
  EXPECT_TRUE(eventually([&] { return !minimized() && frameIs(60, 80, 480, 400); }));

  EXPECT_FALSE(list.setFrame(0x7FFFFFF, 0, 0, 10, 10, false)) << "no such window";
  EXPECT_TRUE(list.windowsOf(0).empty());
}

TEST(PickWindowIcon, TakesTheLargestThatFitsElseTheSmallestAndSurvivesBadData) {
  const auto image = [](std::uint32_t side) {
    std::vector<std::uint32_t> v{side, side};
    v.insert(v.end(), static_cast<std::size_t>(side) * side, side);
    return v;
  };
  std::vector<std::uint32_t> data;
  for (const std::uint32_t side : {48U, 16U, 256U, 64U}) {
    const auto one = image(side);
    data.insert(data.end(), one.begin(), one.end());
  }
  EXPECT_EQ(pickWindowIcon(data).width, 64);
  EXPECT_EQ((*pickWindowIcon(data).argb)[0], 64U);

  std::vector<std::uint32_t> large = image(128);
  const auto huge = image(256);
  large.insert(large.end(), huge.begin(), huge.end());
  EXPECT_EQ(pickWindowIcon(large).width, 128);

  // A truncated image (the client lied about its size) is ignored, not read past the end.
  std::vector<std::uint32_t> truncated = image(16);
  truncated.insert(truncated.end(), {32U, 32U, 1U, 2U});
  EXPECT_EQ(pickWindowIcon(truncated).width, 16);
  EXPECT_TRUE(pickWindowIcon({}).empty());
  EXPECT_TRUE(pickWindowIcon({0, 0}).empty());
}

TEST(X11WorkspaceProblemTest, TheWindowManagerIsFollowedFromMemoryAndItsEndIsNoticed) {
  // A desktop of its own: the window manager goes away here.
  test::XServer server(true);
  ASSERT_TRUE(server.ok());
  std::string error;
  const auto display = X11Display::open(server.display(), error);
  ASSERT_NE(display, nullptr) << error;
  os::DesktopEntryReader entries(std::vector<std::string>{});
  X11Workspace workspace(*display, entries);
  ASSERT_TRUE(eventually([&] { return workspace.problem().empty(); }));

  // Asked on every poll, so it must not cost requests to the server once the watcher has read
  // it: the sequence numbers of two requests around many questions are one apart.
  xcb_connection_t* c = display->connection();
  const auto request = [c] {
    const xcb_get_input_focus_cookie_t cookie = xcb_get_input_focus(c);
    std::free(xcb_get_input_focus_reply(c, cookie, nullptr));
    return cookie.sequence;
  };
  EXPECT_TRUE(eventually([&] {
    const unsigned before = request();
    for (int i = 0; i < 20; ++i) (void)workspace.problem();
    return request() - before == 1;
  }));
  EXPECT_EQ(workspace.problem(), "");

  // Its root properties stay behind; the end of its check window tells.
  server.stopWindowManager();
  EXPECT_TRUE(eventually([&] {
    return workspace.problem().starts_with("no EWMH window manager is running");
  })) << workspace.problem();
}

}  // namespace
}  // namespace tarry::platform::x11
