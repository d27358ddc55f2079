#include "platform/linux/xdg_paths.h"

#include <cstdlib>
#include <filesystem>
#include <sstream>

namespace tarry::platform::os {
namespace {

std::string env(const char* name) {
  const char* v = std::getenv(name);
  return v != nullptr ? std::string(v) : std::string();
}

std::string home() {
  const std::string h = env("HOME");
  return h.empty() ? std::string("/tmp") : h;
}

}  // namespace

std::string configDirectory() {
  // The XDG Base Directory rules ignore relative paths.
  std::string base = env("XDG_CONFIG_HOME");
  if (base.empty() || base.front() != '/') base = home() + "/.config";
  return base + "/tarry";
}

std::string runtimeDirectory() {
  std::string dir = env("XDG_RUNTIME_DIR");
  if (dir.empty() || dir.front() != '/') {
    std::error_code ec;
    dir = std::filesystem::temp_directory_path(ec).string();
    if (ec || dir.empty()) dir = "/tmp";
  }
  return dir;
}

std::vector<std::string> dataDirectories() {
  std::vector<std::string> dirs;
  std::string dataHome = env("XDG_DATA_HOME");
  if (dataHome.empty() || dataHome.front() != '/') dataHome = home() + "/.local/share";
  dirs.push_back(dataHome);
  std::string list = env("XDG_DATA_DIRS");
  if (list.empty()) list = "/usr/local/share:/usr/share";
  std::stringstream in(list);
  for (std::string dir; std::getline(in, dir, ':');) {
    if (!dir.empty() && dir.front() == '/') dirs.push_back(dir);
  }
  return dirs;
}

}  // namespace tarry::platform::os
