#include "platform/linux/desktop_launcher.h"

#include "platform/linux/desktop_entry_reader.h"
#include "temp_dir.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace tarry::platform::os {
namespace {

using Args = std::vector<std::string>;

DesktopEntry entry(const std::string& exec) {
  DesktopEntry e;
  e.id = "org.example.Notes";
  e.path = "/usr/share/applications/org.example.Notes.desktop";
  e.name = "Notes";
  e.icon = "notes";
  e.exec = exec;
  return e;
}

TEST(ExecArguments, FieldCodesAndQuoting) {
  // No documents: %f/%U vanish, leaving no empty argument.
  EXPECT_EQ(execArguments(entry("notes %U"), {}), (Args{"notes"}));
  EXPECT_EQ(execArguments(entry("notes --file=%f"), {}), (Args{"notes", "--file="}));
  EXPECT_EQ(execArguments(entry("notes %F"), {"/a b", "/c"}), (Args{"notes", "/a b", "/c"}));
  EXPECT_EQ(execArguments(entry("notes %u"), {"file:///x", "file:///y"}), (Args{"notes", "file:///x"}));
  EXPECT_EQ(execArguments(entry("notes %i --title=%c %k 100%%"), {}),
            (Args{"notes", "--icon", "notes", "--title=Notes",
                  "/usr/share/applications/org.example.Notes.desktop", "100%"}));
  EXPECT_EQ(execArguments(entry("notes %d %D %n %N %v %m"), {}), (Args{"notes"}));
  // Quoted arguments keep spaces and their escaped characters; codes inside quotes stay text.
  EXPECT_EQ(execArguments(entry(R"("/opt/My App/run" "say \"hi\" \$HOME \\ \`x\`" "%%f")"), {}),
            (Args{"/opt/My App/run", R"(say "hi" $HOME \ `x`)", "%f"}));
  // Refused: unknown code, dangling percent, unterminated quote, bad escape, nothing at all.
  for (const char* bad : {"notes %z", "notes %", R"(notes "open)", R"("a\b")", "   "}) {
    EXPECT_FALSE(execArguments(entry(bad), {})) << bad;
  }
}

TEST(ServiceUnit, OnlyAServiceOtherThanTheUserManagerCounts) {
  tarry::testing::TempDir dir;
  const auto check = [&](const std::string& text) {
    std::ofstream(dir / "cgroup") << text;
    return runsInServiceUnit(dir / "cgroup");
  };
  EXPECT_TRUE(
      check("0::/user.slice/user-1000.slice/user@1000.service/app.slice/app-tarry@autostart.service\n"));
  EXPECT_FALSE(check("0::/user.slice/user-1000.slice/session-2.scope\n"));
  EXPECT_FALSE(
      check("0::/user.slice/user-1000.slice/user@1000.service/app.slice/app-gnome-tarry-4242.scope\n"));
  EXPECT_FALSE(check("0::/user.slice/user-1000.slice/user@1000.service\n"));
  EXPECT_FALSE(check("0::/\n"));
  EXPECT_FALSE(runsInServiceUnit(dir / "absent"));
}

class DesktopLauncherTest : public ::testing::Test {
 protected:
  void write(const std::string& name, const std::string& text) { std::ofstream(dir / name) << text; }
  [[nodiscard]] bool waitFor(const std::string& file) const {
    for (int i = 0; i < 200; ++i) {
      std::error_code ec;
      if (std::filesystem::exists(dir / file, ec) && std::filesystem::file_size(dir / file, ec) > 0)
        return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }
  static std::string slurp(const std::string& path) {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  }

  tarry::testing::TempDir dir;
  DesktopEntryReader entries;
};

TEST_F(DesktopLauncherTest, StartsAnEntryInItsPathInANewSession) {
  // The launched script writes its working directory, its session id and its process id.
  write("probe.sh", "#!/bin/sh\npwd > out.tmp; ps -o sid=,pid= -p $$ >> out.tmp; mv out.tmp out\n");
  std::filesystem::permissions(dir / "probe.sh", std::filesystem::perms::owner_all);
  write("app.desktop", "[Desktop Entry]\nType=Application\nName=App\nPath=" + dir.path() + "\nExec=\"" +
                           (dir / "probe.sh") + "\"\n");
  DesktopLauncher launcher(entries);
  ASSERT_TRUE(launcher.launch(dir / "app.desktop", {}));
  ASSERT_TRUE(waitFor("out"));
  std::istringstream out(slurp(dir / "out"));
  std::string pwd;
  long sid = 0, pid = 0;
  out >> pwd >> sid >> pid;
  EXPECT_EQ(pwd, dir.path());
  EXPECT_EQ(sid, pid) << "the app leads a session of its own";
}

TEST_F(DesktopLauncherTest, MissingProgramsAndPathsAreNotStarted) {
  DesktopLauncher launcher(entries);
  EXPECT_FALSE(launcher.launch(dir / "gone.desktop", {}));
  EXPECT_FALSE(launcher.launch(dir / "gone", {}));
  write("broken.desktop", "[Desktop Entry]\nType=Application\nName=Broken\nExec=/nonexistent/program\n");
  EXPECT_FALSE(launcher.launch(dir / "broken.desktop", {}));
  write("plain", "not executable");
  EXPECT_FALSE(launcher.launch(dir / "plain", {}));
}

TEST_F(DesktopLauncherTest, DBusActivatableEntriesAreActivatedByTheirId) {
  std::vector<std::string> activated;
  bool answer = true;
  DesktopLauncher launcher(entries, [&](const std::string& id) {
    activated.push_back(id);
    return answer;
  });
  write("org.example.Bus.desktop",
        "[Desktop Entry]\nType=Application\nName=Bus\nDBusActivatable=true\nExec=/bin/sh -c \"echo ran > "
        "ran\"\nPath=" +
            dir.path() + "\n");
  EXPECT_TRUE(launcher.launch(dir / "org.example.Bus.desktop", {}));
  EXPECT_FALSE(waitFor("ran"));
  // An activation nobody answers falls back to Exec.
  answer = false;
  EXPECT_TRUE(launcher.launch(dir / "org.example.Bus.desktop", {}));
  EXPECT_TRUE(waitFor("ran"));
  EXPECT_EQ(activated.size(), 2U);
}

}  // namespace
}  // namespace tarry::platform::os
