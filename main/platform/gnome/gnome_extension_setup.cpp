#include "platform/gnome/gnome_extension_setup.h"

#include "platform/linux/xdg_paths.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <fstream>

namespace tarry::platform::gnome {
namespace {

constexpr char kLogOut[] = "Log out and back in once to finish setting up Tarry";

bool contains(const std::vector<std::string>& list, const std::string& item) {
  return std::find(list.begin(), list.end(), item) != list.end();
}

/// Runs a program and returns what it printed; nothing when it failed.
std::optional<std::string> run(std::vector<std::string> argv) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return std::nullopt;
  std::vector<char*> args;
  for (std::string& a : argv) args.push_back(a.data());
  args.push_back(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    dup2(fds[1], 1);
    execvp(args[0], args.data());
    _exit(127);
  }
  close(fds[1]);
  std::string out;
  char buffer[512];
  for (ssize_t n; child > 0 && (n = read(fds[0], buffer, sizeof buffer)) != 0;) {
    if (n < 0) {
      if (errno == EINTR) continue;
      break;
    }
    out.append(buffer, static_cast<std::size_t>(n));
  }
  close(fds[0]);
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
    return std::nullopt;
  return out;
}

std::optional<std::string> shellSetting(const char* key) {
  return run({"gsettings", "get", "org.gnome.shell", key});
}

std::filesystem::path userExtensionsFolder() {
  return std::filesystem::path(os::dataDirectories().front()) / "gnome-shell" / "extensions";
}

}  // namespace

std::string extensionFormat(int shellMajor) { return shellMajor >= 45 ? "esm" : "legacy"; }

ExtensionPlan planExtensionSetup(const ExtensionFacts& facts) {
  ExtensionPlan plan;
  const bool systemCurrent = facts.systemVersion && *facts.systemVersion >= facts.bundledVersion;
  const bool userCurrent = facts.userVersion && *facts.userVersion >= facts.bundledVersion;
  plan.installUserCopy = !systemCurrent && !userCurrent;
  const bool switchedOff = contains(facts.disabled, kExtensionUuid);
  plan.enable = !switchedOff && !contains(facts.enabled, kExtensionUuid);
  if (facts.running && !plan.installUserCopy) return plan;
  if (facts.userExtensionsOff) {
    plan.problem = std::string(
                       "Extensions are switched off in GNOME, and Tarry needs its own to guard the keys. "
                       "Switch them on in the Extensions app. ") +
                   kLogOut;
  } else if (switchedOff) {
    plan.problem =
        std::string("Tarry's GNOME Shell extension is switched off. Switch it on in the Extensions app. ") +
        kLogOut;
  } else if (facts.running) {
    plan.problem = std::string("Tarry's GNOME Shell extension was updated. ") + kLogOut;
  } else {
    plan.problem = kLogOut;
  }
  return plan;
}

std::optional<int> extensionVersionAt(const std::filesystem::path& folder) {
  std::ifstream in(folder / "metadata.json");
  if (!in) return std::nullopt;
  const nlohmann::json metadata = nlohmann::json::parse(in, nullptr, false);
  if (!metadata.is_object() || !metadata.contains("version") || !metadata["version"].is_number_integer())
    return std::nullopt;
  return metadata["version"].get<int>();
}

std::vector<std::string> parseStringList(const std::string& text) {
  std::vector<std::string> items;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\'') continue;
    std::string item;
    for (++i; i < text.size() && text[i] != '\''; ++i) {
      if (text[i] == '\\' && i + 1 < text.size()) ++i;
      item += text[i];
    }
    items.push_back(item);
  }
  return items;
}

std::string formatStringList(const std::vector<std::string>& items) {
  std::string out = "[";
  for (const std::string& item : items) {
    if (out.size() > 1) out += ", ";
    out += '\'';
    for (char c : item) {
      if (c == '\'' || c == '\\') out += '\\';
      out += c;
    }
    out += '\'';
  }
  return out + "]";
}

ExtensionPlan setUpExtension(const std::filesystem::path& builds, int shellMajor, bool running) {
  const std::filesystem::path bundled = builds / extensionFormat(shellMajor) / kExtensionUuid;
  ExtensionFacts facts;
  facts.shellMajor = shellMajor;
  facts.bundledVersion = extensionVersionAt(bundled).value_or(0);
  facts.running = running;
  const std::vector<std::string> dirs = os::dataDirectories();
  facts.userVersion = extensionVersionAt(userExtensionsFolder() / kExtensionUuid);
  for (std::size_t i = 1; i < dirs.size() && !facts.systemVersion; ++i)
    facts.systemVersion =
        extensionVersionAt(std::filesystem::path(dirs[i]) / "gnome-shell" / "extensions" / kExtensionUuid);
  facts.enabled = parseStringList(shellSetting("enabled-extensions").value_or(""));
  facts.disabled = parseStringList(shellSetting("disabled-extensions").value_or(""));
  facts.userExtensionsOff = shellSetting("disable-user-extensions").value_or("false").starts_with("true");

  ExtensionPlan plan = planExtensionSetup(facts);
  if (plan.installUserCopy && facts.bundledVersion > 0) {
    const std::filesystem::path target = userExtensionsFolder() / kExtensionUuid;
    std::error_code error;
    std::filesystem::create_directories(target, error);
    std::filesystem::copy(
        bundled, target,
        std::filesystem::copy_options::recursive | std::filesystem::copy_options::overwrite_existing, error);
    if (error)
      plan.problem =
          "cannot install Tarry's GNOME Shell extension in " + target.string() + ": " + error.message();
  } else if (plan.installUserCopy) {
    plan.problem =
        "Tarry's GNOME Shell extension is missing from this installation (" + bundled.string() + ")";
  }
  if (plan.enable) {
    std::vector<std::string> enabled = facts.enabled;
    enabled.push_back(kExtensionUuid);
    if (!run({"gsettings", "set", "org.gnome.shell", "enabled-extensions", formatStringList(enabled)}) &&
        plan.problem.empty()) {
      plan.problem = "cannot switch on Tarry's GNOME Shell extension (gsettings failed)";
    }
  }
  return plan;
}

std::optional<std::filesystem::path> findExtensionBuilds() {
  std::error_code error;
  const std::filesystem::path exe = std::filesystem::read_symlink("/proc/self/exe", error);
  if (error) return std::nullopt;
  // Installed: <prefix>/bin/tarry and <prefix>/share/tarry/gnome-extension. Built: the build tree's
  // gnome-extension folder, two levels above main/app/tarry (or main/desktop/tarry).
  for (const std::filesystem::path& candidate :
       {exe.parent_path().parent_path() / "share" / "tarry" / "gnome-extension",
        exe.parent_path().parent_path().parent_path() / "gnome-extension"}) {
    if (std::filesystem::is_directory(candidate, error)) return candidate;
  }
  return std::nullopt;
}

}  // namespace tarry::platform::gnome
