#include "platform/kde/fake_input_entry.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

extern char** environ;

namespace tarry::platform::kde {
namespace {

constexpr char kInterfaces[] = "X-KDE-Wayland-Interfaces";
constexpr char kFakeInput[] = "org_kde_kwin_fake_input";
constexpr char kOwnEntry[] = "org.tarry.Tarry.FakeInput.desktop";

std::string trim(const std::string& text) {
  const auto first = text.find_first_not_of(" \t\r");
  if (first == std::string::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace

bool declaresFakeInput(const std::string& entryText, const std::string& executable) {
  std::istringstream lines(entryText);
  std::string line;
  bool inEntry = false;
  bool starts = false;
  bool declares = false;
  while (std::getline(lines, line)) {
    line = trim(line);
    if (line.starts_with("[")) {
      inEntry = line == "[Desktop Entry]";
      continue;
    }
    if (!inEntry) continue;
    const auto equals = line.find('=');
    if (equals == std::string::npos) continue;
    const std::string key = trim(line.substr(0, equals));
    const std::string value = trim(line.substr(equals + 1));
    if (key == "Exec") {
      // KWin compares the whole line with the client's executable.
      const std::string& program = value;
      std::error_code error;
      starts = program == executable ||
               (program.starts_with("/") && std::filesystem::equivalent(program, executable, error));
    } else if (key == kInterfaces) {
      // KWin reads the value as a comma-separated list; a trailing ';' (the freedesktop list
      // syntax) becomes part of the last name, which then matches nothing.
      std::istringstream names(value);
      std::string name;
      while (std::getline(names, name, ',')) declares = declares || trim(name) == kFakeInput;
    }
  }
  return starts && declares;
}

std::string fakeInputEntryText(const std::string& executable) {
  return std::string(
             "[Desktop Entry]\n"
             "Type=Application\n"
             "Name=Tarry (") +
         executable +
         ")\n"
         "Comment=Lets this copy of Tarry type a confirmed shortcut into the app on KDE Plasma\n"
         "Exec=" +
         executable +
         "\n"
         "NoDisplay=true\n"
         "Terminal=false\n" +
         kInterfaces + "=" + kFakeInput + "\n";
}

std::string refreshServiceCache() {
  for (const char* tool : {"kbuildsycoca6", "kbuildsycoca5"}) {
    char* argv[] = {const_cast<char*>(tool), nullptr};
    pid_t child = -1;
    if (posix_spawnp(&child, tool, nullptr, nullptr, argv, environ) != 0) continue;
    // The cache tool ends within a second or two; a thread of its own reaps it.
    std::thread([child] { waitpid(child, nullptr, 0); }).detach();
    return std::string(tool) + " refreshes KDE's service cache";
  }
  return "found no kbuildsycoca to refresh KDE's service cache";
}

std::string ensureFakeInputEntry(const std::string& executable,
                                 const std::vector<std::string>& applicationDirs, const std::string& ownDir,
                                 const std::function<std::string()>& refreshCache) {
  std::error_code error;
  for (const std::string& dir : applicationDirs) {
    for (const auto& file : std::filesystem::directory_iterator(dir, error)) {
      if (file.path().extension() == ".desktop" && declaresFakeInput(readFile(file.path()), executable))
        return {};
    }
  }
  std::filesystem::create_directories(ownDir, error);
  const std::filesystem::path path = std::filesystem::path(ownDir) / kOwnEntry;
  {
    std::ofstream out(path, std::ios::trunc);
    out << fakeInputEntryText(executable);
    if (!out.flush()) return "cannot write " + path.string() + " (KWin will not let this copy type keys)";
  }
  // KWin reads the entries through the service cache.
  return "wrote " + path.string() + " so that KWin lets this copy type keys; " + refreshCache();
}

}  // namespace tarry::platform::kde
