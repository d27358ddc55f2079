#pragma once

#include <optional>
#include <string>
#include <vector>

namespace tarry::platform {

/// One application as an installed `.desktop` file describes it.
struct DesktopEntry {
  /// The desktop-file id ("org.gnome.TextEditor"); the program uses it as the bundle identifier.
  std::string id;
  /// Absolute path of the file.
  std::string path;
  /// `Name` in the user's language (the best `Name[locale]` match, else `Name`).
  std::string name;
  /// `Icon`: an icon-theme name or an absolute file path; may be empty.
  std::string icon;
  /// `Exec`, with the general escapes (\s, \n, \t, \r, \\) undone; field codes are kept.
  std::string exec;
  /// `StartupWMClass`: the WM_CLASS its windows carry; may be empty.
  std::string startupWMClass;
  /// `NoDisplay=true`: installed but kept out of menus (still a real application).
  bool noDisplay = false;
  /// `Hidden=true`: the user deleted it; lookups treat its id as absent.
  bool hidden = false;
  /// `Categories`, split at ';' ("System", "TerminalEmulator", ...); may be empty.
  std::vector<std::string> categories;
};

/// The desktop's installed applications, read from `.desktop` files.
/// NOTE: may be called from any thread.
class DesktopEntries {
 public:
  DesktopEntries() = default;
  DesktopEntries(const DesktopEntries&) = delete;
  DesktopEntries& operator=(const DesktopEntries&) = delete;
  virtual ~DesktopEntries() = default;

  /// The application entry in the file at `path` (Hidden ones included, marked); nothing when the
  /// file cannot be read or is not a valid application entry.
  [[nodiscard]] virtual std::optional<DesktopEntry> readFile(const std::string& path) = 0;
  /// The installed entry with this desktop-file id; nothing when absent or Hidden.
  [[nodiscard]] virtual std::optional<DesktopEntry> findById(const std::string& id) = 0;
  /// The first installed entry whose `StartupWMClass` equals `wmClass` (exactly, else ignoring
  /// ASCII case); nothing when none does.
  [[nodiscard]] virtual std::optional<DesktopEntry> findByStartupWMClass(const std::string& wmClass) = 0;
  /// Every installed application entry that is not Hidden, one per id, in search order.
  [[nodiscard]] virtual std::vector<DesktopEntry> installedApplications() = 0;
};

}  // namespace tarry::platform
