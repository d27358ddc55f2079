#include "platform/linux/desktop_entry_reader.h"

#include "linux/temp_dir.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace tarry::platform::os {
namespace {

namespace fs = std::filesystem;

/// A private XDG_DATA_HOME and XDG_DATA_DIRS with their `applications/` folders; the locale
/// variables are cleared and restored afterwards.
class DesktopEntryReaderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* name : {"XDG_DATA_HOME", "XDG_DATA_DIRS", "LC_ALL", "LC_MESSAGES", "LANG"}) {
      const char* value = std::getenv(name);
      saved.emplace_back(name, value != nullptr ? std::optional<std::string>(value) : std::nullopt);
      ::unsetenv(name);
    }
    ::setenv("XDG_DATA_HOME", (root / "home").c_str(), 1);
    ::setenv("XDG_DATA_DIRS", ((root / "local").string() + ":" + (root / "system").string()).c_str(), 1);
  }
  void TearDown() override {
    for (const auto& [name, value] : saved) {
      if (value) ::setenv(name.c_str(), value->c_str(), 1);
      else ::unsetenv(name.c_str());
    }
  }

  fs::path write(const std::string& dataDir, const std::string& relative, const std::string& text) {
    const fs::path path = root / dataDir / "applications" / relative;
    fs::create_directories(path.parent_path());
    std::ofstream(path) << text;
    return path;
  }

  static std::string app(const std::string& name, const std::string& extra = "") {
    return "[Desktop Entry]\nType=Application\nName=" + name + "\nExec=" + name + "\n" + extra;
  }

  tarry::testing::TempDir dir;
  fs::path root = dir.path();
  std::vector<std::pair<std::string, std::optional<std::string>>> saved;
};

TEST_F(DesktopEntryReaderTest, ReadsTheDesktopEntryGroupWithLocalizedNames) {
  const std::string text =
      "# comment\n"
      "[Desktop Entry]\n"
      "Type = Application\n"
      "Name=Editor\n"
      "Name[de]=Bearbeiter\n"
      "Name[de_CH]=Editor (Schweiz)\n"
      "Name[sr@latin]=Uređivač\n"
      "Icon=/opt/editor/icon.png\n"
      "Exec=editor\\s--new %U\n"
      "StartupWMClass=EditorWin\n"
      "NoDisplay=true\n"
      "Categories=System;TerminalEmulator;;\n"
      "\n"
      "[Desktop Action window]\n"
      "Name=New Window\n"
      "Exec=other\n";
  const fs::path path = write("home", "org.example.Editor.desktop", text);

  DesktopEntryReader reader;
  ::setenv("LANG", "de_AT.UTF-8", 1);
  auto entry = reader.readFile(path.string());
  ASSERT_TRUE(entry);
  EXPECT_EQ(entry->name, "Bearbeiter");
  EXPECT_EQ(entry->id, "org.example.Editor");
  EXPECT_EQ(entry->path, path.string());
  EXPECT_EQ(entry->icon, "/opt/editor/icon.png");
  EXPECT_EQ(entry->exec, "editor --new %U");
  EXPECT_EQ(entry->startupWMClass, "EditorWin");
  EXPECT_EQ(entry->categories, (std::vector<std::string>{"System", "TerminalEmulator"}));
  EXPECT_TRUE(entry->noDisplay);
  EXPECT_FALSE(entry->hidden);

  // LC_ALL before LC_MESSAGES before LANG; country, then modifier, then language alone.
  ::setenv("LC_MESSAGES", "de_CH.UTF-8", 1);
  EXPECT_EQ(reader.readFile(path.string())->name, "Editor (Schweiz)");
  ::setenv("LC_ALL", "sr_RS.UTF-8@latin", 1);
  EXPECT_EQ(reader.readFile(path.string())->name, "Uređivač");
  ::setenv("LC_ALL", "C.UTF-8", 1);
  EXPECT_EQ(reader.readFile(path.string())->name, "Editor");
  // Installed lookups follow a change of locale too.
  ::setenv("LC_ALL", "de", 1);
  EXPECT_EQ(reader.findById("org.example.Editor")->name, "Bearbeiter");

  EXPECT_EQ(localeVariants("sr_RS.UTF-8@latin"), (std::vector<std::string>{"sr_RS@latin", "sr_RS", "sr@latin", "sr"}));
  EXPECT_TRUE(localeVariants("POSIX").empty());
}

TEST_F(DesktopEntryReaderTest, RejectsWhatIsNotAnApplicationEntry) {
  DesktopEntryReader reader;
  const auto read = [&](const std::string& file, const std::string& text) {
    return reader.readFile(write("home", file, text).string());
  };
  EXPECT_FALSE(read("link.desktop", "[Desktop Entry]\nType=Link\nName=Site\nURL=https://example.org\n"));
  EXPECT_FALSE(read("notype.desktop", "[Desktop Entry]\nName=NoType\nExec=x\n"));
  EXPECT_FALSE(read("noname.desktop", "[Desktop Entry]\nType=Application\nName[de]=Nur\nExec=x\n"));
  EXPECT_FALSE(read("noexec.desktop", "[Desktop Entry]\nType=Application\nName=NoExec\n"));
  EXPECT_FALSE(read("othergroup.desktop", "[Other]\nType=Application\nName=Other\nExec=x\n"));
  EXPECT_FALSE(reader.readFile((root / "missing.desktop").string()));
  EXPECT_TRUE(read("dbus.desktop", "[Desktop Entry]\nType=Application\nName=Bus\nDBusActivatable=true\n"));
  const auto hidden = read("gone.desktop", app("Gone", "Hidden=true\n"));
  ASSERT_TRUE(hidden);
  EXPECT_TRUE(hidden->hidden);
}

TEST_F(DesktopEntryReaderTest, IdsComeFromThePathAndEarlierDirectoriesWin) {
  write("home", "org.example.Editor.desktop", app("Home Editor"));
  write("system", "org.example.Editor.desktop", app("System Editor"));
  write("system", "kde/konsole.desktop", app("Konsole", "StartupWMClass=konsole\n"));
  // Hidden in the user's folder deletes the system's entry of the same id.
  write("home", "org.example.Removed.desktop", app("Removed", "Hidden=true\n"));
  write("system", "org.example.Removed.desktop", app("Removed"));
  write("local", "org.example.Late.desktop", app("Late", "StartupWMClass=LateWin\n"));
  write("system", "org.example.Site.desktop", "[Desktop Entry]\nType=Link\nName=Site\n");

  DesktopEntryReader reader;
  EXPECT_EQ(reader.findById("org.example.Editor")->name, "Home Editor");
  EXPECT_EQ(reader.findById("kde-konsole")->name, "Konsole");
  EXPECT_FALSE(reader.findById("org.example.Removed"));
  EXPECT_FALSE(reader.findById("org.example.Site"));
  EXPECT_FALSE(reader.findById("konsole"));

  std::vector<std::string> ids;
  for (const DesktopEntry& e : reader.installedApplications()) ids.push_back(e.id);
  EXPECT_EQ(ids, (std::vector<std::string>{"org.example.Editor", "org.example.Late", "kde-konsole"}));
  EXPECT_EQ(reader.readFile((root / "system/applications/kde/konsole.desktop").string())->id, "kde-konsole");

  EXPECT_EQ(reader.findByStartupWMClass("konsole")->id, "kde-konsole");
  EXPECT_EQ(reader.findByStartupWMClass("latewin")->id, "org.example.Late");
  EXPECT_FALSE(reader.findByStartupWMClass("Unknown"));
  EXPECT_FALSE(reader.findByStartupWMClass(""));

  // A file installed later is found without a new reader.
  write("home", "sub/org.example.New.desktop", app("New"));
  EXPECT_EQ(reader.findById("sub-org.example.New")->name, "New");
}

TEST(DesktopFileId, RelativeToTheApplicationsFolder) {
  EXPECT_EQ(desktopFileId("/usr/share/applications/kde4/dolphin.desktop", {"/usr/share/"}), "kde4-dolphin");
  EXPECT_EQ(desktopFileId("/srv/x/applications/a/b.desktop", {"/usr/share"}), "a-b");
  EXPECT_EQ(desktopFileId("/home/u/Downloads/tool.desktop", {"/usr/share"}), "tool");
}

}  // namespace
}  // namespace tarry::platform::os
