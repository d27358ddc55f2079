#include "platform/linux/xdg_autostart.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace tarry::platform::os {
namespace {

std::string trim(std::string s) {
  const auto notSpace = [](unsigned char c) { return c != ' ' && c != '\t' && c != '\r'; };
  while (!s.empty() && !notSpace(static_cast<unsigned char>(s.back()))) s.pop_back();
  std::size_t i = 0;
  while (i < s.size() && !notSpace(static_cast<unsigned char>(s[i]))) ++i;
  return s.substr(i);
}

/// Quotes an Exec argument by the Desktop Entry rules when it needs it.
std::string execArgument(const std::string& arg) {
  if (arg.find_first_of(" \t\"'\\><~|&;$*?#()`") == std::string::npos) return arg;
  std::string out = "\"";
  for (char c : arg) {
    if (c == '"' || c == '`' || c == '$' || c == '\\') out += '\\';
    out += c;
  }
  return out + "\"";
}

}  // namespace

std::string configHome() {
  if (const char* x = std::getenv("XDG_CONFIG_HOME"); x && *x == '/') return x;
  const char* home = std::getenv("HOME");
  return std::string(home ? home : "") + "/.config";
}

std::string executablePath() {
  std::error_code ec;
  const auto path = std::filesystem::read_symlink("/proc/self/exe", ec);
  return ec ? std::string("tarry") : path.string();
}

XdgAutostart::XdgAutostart(std::string configHome, std::string appId, std::string executable)
    : dir_(std::move(configHome) + "/autostart"),
      path_(dir_ + "/" + appId + ".desktop"),
      executable_(std::move(executable)) {}

std::string XdgAutostart::entryText() const {
  std::ostringstream out;
  out << "[Desktop Entry]\n"
      << "Type=Application\n"
      << "Name=Tarry\n"
      << "Comment=Guards Ctrl+Q, Ctrl+W and Ctrl+Shift+Q against accidental presses\n"
      << "Exec=" << execArgument(executable_) << " --autostart\n"
      << "TryExec=" << executable_ << "\n"
      << "Icon=" << std::filesystem::path(path_).stem().string() << "\n"
      << "Terminal=false\n"
      << "NoDisplay=true\n"
      << "X-GNOME-Autostart-enabled=true\n";
  return out.str();
}

bool XdgAutostart::enabled() {
  std::ifstream in(path_);
  if (!in) return false;
  bool inMain = false;
  std::string line;
  while (std::getline(in, line)) {
    line = trim(line);
    if (line.empty() || line[0] == '#') continue;
    if (line[0] == '[') {
      inMain = line == "[Desktop Entry]";
      continue;
    }
    if (!inMain) continue;
    const auto eq = line.find('=');
    if (eq == std::string::npos) continue;
    const std::string key = trim(line.substr(0, eq));
    const std::string value = trim(line.substr(eq + 1));
    if (key == "Hidden" && value == "true") return false;
    if (key == "X-GNOME-Autostart-enabled" && value == "false") return false;
  }
  return true;
}

bool XdgAutostart::registerItem(std::string& error) {
  std::error_code ec;
  std::filesystem::create_directories(dir_, ec);
  if (ec) {
    error = dir_ + ": " + ec.message();
    return false;
  }
  // Write a temporary file and rename it: a session manager never reads half an entry.
  const std::string temporary = path_ + ".tmp";
  {
    std::ofstream out(temporary, std::ios::trunc);
    out << entryText();
    out.flush();
    if (!out) {
      error = temporary + ": " + std::strerror(errno);
      std::filesystem::remove(temporary, ec);
      return false;
    }
  }
  std::filesystem::rename(temporary, path_, ec);
  if (ec) {
    error = path_ + ": " + ec.message();
    std::filesystem::remove(temporary, ec);
    return false;
  }
  return true;
}

bool XdgAutostart::unregisterItem(std::string& error) {
  std::error_code ec;
  std::filesystem::remove(path_, ec);
  if (ec) {
    error = path_ + ": " + ec.message();
    return false;
  }
  return true;
}

}  // namespace tarry::platform::os
