#pragma once

#include "platform/app_launcher.h"
#include "platform/desktop_entries.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace tarry::platform::os {

/// The command line of a desktop entry's `Exec`, split and with its field codes expanded as the
/// Desktop Entry Specification says: `%f`/`%u` the first document, `%F`/`%U` every document (each
/// its own argument), `%i` "--icon ICON", `%c` the name, `%k` the entry's file, `%%` a percent sign;
/// the deprecated codes vanish. Nothing when the line is empty, badly quoted or uses an unknown
/// field code.
[[nodiscard]] std::optional<std::vector<std::string>> execArguments(
    const DesktopEntry& entry, const std::vector<std::string>& documents);

/// True when the cgroup file (`/proc/self/cgroup`) puts the process in a systemd service unit (as
/// desktops that autostart programs through systemd do), rather than a session or app scope: the
/// apps it starts would then live and die with that unit.
[[nodiscard]] bool runsInServiceUnit(const std::string& cgroupFile);

/// `argv` wrapped so that it runs in a transient scope of its own under the user's systemd
/// (`systemd-run --user --scope`) when this program runs in a service unit and systemd-run is at
/// hand; else `argv` unchanged.
[[nodiscard]] std::vector<std::string> inOwnScope(std::vector<std::string> argv);

/// Starts `argv` (looked up on PATH) in `directory` (empty: this program's) as a process of its
/// own: a new session, reparented to init, no descriptors of this program but the standard
/// output and error, standard input from /dev/null. False when it could not be executed.
bool spawnDetached(const std::vector<std::string>& argv, const std::string& directory);

/// Starts applications the way a desktop's launcher does: a `.desktop` file by D-Bus activation
/// when it is `DBusActivatable` (and the activation is answered), else by its `Exec` line in its
/// `Path`; any other path as an executable.
class DesktopLauncher final : public AppLauncher {
 public:
  /// `activate` asks the session bus to activate a desktop-file id; true when it was answered.
  DesktopLauncher(DesktopEntries& entries, std::function<bool(const std::string& id)> activate = {})
      : entries_(entries), activate_(std::move(activate)) {}

  bool launch(const std::string& path, const std::vector<std::string>& documents) override;

 private:
  DesktopEntries& entries_;
  std::function<bool(const std::string&)> activate_;
};

}  // namespace tarry::platform::os
