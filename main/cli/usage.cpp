#include "cli/usage.h"

#include <algorithm>
#include <array>

namespace tarry::cli {
namespace {

// NOTE: `--help` gives each summary the room of one line after the widest invocation (46 characters).
constexpr std::array kOptions{
    Usage{"", "starts guarding on this display",
          "One copy runs per user and display: a second launch asks the running copy to show its "
          "Settings window and ends. On the first start only the consent window opens; nothing is "
          "guarded, shown in the tray or sent before the user agrees, and Disagree ends the program."},
    Usage{"--autostart", "starts as at login: no window opens",
          "The autostart entry Tarry makes at its first start runs it this way; Settings opens "
          "only when the guard cannot work."},
    Usage{"--pause MINUTES", "pauses protection (0 = until 06:00)",
          "Asks the running copy; MINUTES is 0 to 1440. The command returns once the running copy "
          "is paused and has stored the pause, so \"tarry defaults read pauseUntil\" shows it at "
          "once."},
    Usage{"--resume", "ends the pause",
          "Asks the running copy, and like --pause returns once the change is in force and stored."},
    Usage{"--telemetry-demo", "prints the usage events' settings snapshot",
          "The snapshot is JSON with sorted keys."},
    Usage{"--remote-config-demo", "prints the remote tuning values in force",
          "Fetches the remote tuning document from the server, applies it and prints the values of "
          "the hold panel's look that are then in force."},
    Usage{"--hud-demo", "shows the hold panel filling, over and over",
          "The panel fills in 3 s and starts again. Of --telemetry-demo, --remote-config-demo and "
          "--hud-demo only the first in this order acts."},
    Usage{"--help", "prints this help", "-h is the same."},
    Usage{"--version", "prints the version", ""},
};

constexpr std::array kCommands{
    Usage{"defaults read [KEY]", "prints one preference, or all, as JSON",
          "A key that is not set is named on the standard error, and the exit status is 1."},
    Usage{"defaults write KEY JSON", "stores a preference",
          "JSON is one JSON value, e.g. tarry defaults write holdSeconds 3; a text needs JSON quotes "
          "inside the shell's. Tarry warns about a key or a type it does not read. The running copy "
          "picks the change up within a second."},
    Usage{"defaults delete KEY", "removes a preference (back to its default)",
          "Deleting a key that is not set fails with status 1."},
    Usage{"apps", "lists the running apps and their rules",
          "One line per running app: the id that a rule in appModes names, the app's name and its "
          "Ctrl+Q rule. Needs the X display."},
};

constexpr std::string_view kSynopsis =
    "Usage: tarry [OPTION]\n"
    "       tarry COMMAND [ARGUMENT]...\n";

}  // namespace

std::span<const Usage> options() { return kOptions; }
std::span<const Usage> commands() { return kCommands; }

std::string shortUsage() { return std::string(kSynopsis).append("See tarry --help.\n"); }

std::string helpText() {
  constexpr std::size_t kColumn = 34;
  std::string text(kSynopsis);
  text.append("Guards Ctrl+Q, Ctrl+W and Ctrl+Shift+Q against accidental presses.\n");
  const auto list = [&](std::string_view heading, std::span<const Usage> entries) {
    text.append("\n").append(heading).append(":\n");
    for (const Usage& u : entries) {
      std::string line("  tarry");
      if (!u.invocation.empty()) line.append(" ").append(u.invocation);
      line.resize(std::max(line.size() + 2, kColumn), ' ');
      text.append(line).append(u.summary).append("\n");
    }
  };
  list("Options", options());
  list("Commands", commands());
  text.append("\nSee tarry(1) for the files, the environment and the exit statuses.\n");
  return text;
}

}  // namespace tarry::cli
