#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace tarry::platform::gnome {

inline constexpr char kExtensionUuid[] = "tarry@tarry.org";

/// What is known about the extension before the guard starts.
struct ExtensionFacts {
  /// The Shell's major version (43, 48); 0 when unknown.
  int shellMajor = 0;
  /// The extension's version in this program's own builds.
  int bundledVersion = 0;
  /// Version of the copy in a system folder ($XDG_DATA_DIRS), and of the user's copy; nothing when absent.
  std::optional<int> systemVersion;
  std::optional<int> userVersion;
  /// The Shell's settings.
  std::vector<std::string> enabled;
  std::vector<std::string> disabled;
  bool userExtensionsOff = false;
  /// The Shell runs the extension now (its bus name has an owner).
  bool running = false;
};

/// What to do about it.
struct ExtensionPlan {
  /// Copy this program's build into the user's extension folder (none there, or an older one).
  bool installUserCopy = false;
  /// Add the extension to the Shell's enabled list (not there, and not switched off by the user).
  bool enable = false;
  /// In words for the user and the log; empty when the extension runs as it should.
  std::string problem;
};

/// Decides from `facts`: a system copy at least as new as this program's is used as it is; an
/// extension the user switched off, or user extensions switched off altogether, are reported and
/// left so; one that was just installed or enabled runs only after the next login.
[[nodiscard]] ExtensionPlan planExtensionSetup(const ExtensionFacts& facts);

/// Which of the two builds fits the Shell: "esm" from GNOME 45, "legacy" before.
[[nodiscard]] std::string extensionFormat(int shellMajor);

/// The "version" of an extension's metadata.json; nothing when unreadable.
[[nodiscard]] std::optional<int> extensionVersionAt(const std::filesystem::path& folder);

/// Parses the output of `gsettings get` for a list of strings ("['a', 'b']", "@as []").
[[nodiscard]] std::vector<std::string> parseStringList(const std::string& text);
/// The GVariant text of a list of strings, for `gsettings set`.
[[nodiscard]] std::string formatStringList(const std::vector<std::string>& items);

/// Installs, updates and enables the extension for the user where needed, and tells what is left
/// for the user to do. `builds` is the folder with this program's `esm/` and `legacy/` builds;
/// `extensionRunning` asks the bus. Runs `gsettings` for the Shell's settings.
[[nodiscard]] ExtensionPlan setUpExtension(const std::filesystem::path& builds, int shellMajor, bool running);

/// The folder of this program's extension builds: next to the installed program
/// (<prefix>/share/tarry/gnome-extension) or in its build tree; nothing when neither exists.
[[nodiscard]] std::optional<std::filesystem::path> findExtensionBuilds();

}  // namespace tarry::platform::gnome
