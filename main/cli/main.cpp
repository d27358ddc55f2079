// Process entry: picks what this run of the program is (a command-line tool, a demo, or the
// desktop program) before anything else starts.
#include "cli/apps_main.h"
#include "cli/command_store.h"
#include "cli/defaults_command.h"
#include "cli/hud_demo.h"
#include "cli/remote_config_demo.h"
#include "cli/telemetry_demo.h"
#include "cli/usage.h"
#include "desktop/desktop.h"
#include "platform/linux/sqlite_defaults_store.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

namespace {

bool hasFlag(int argc, char** argv, std::string_view flag) {
  for (int i = 1; i < argc; ++i) {
    if (flag == argv[i]) return true;
  }
  return false;
}

int runDefaults(int argc, char** argv) {
  tarry::cli::CommandStore opened;
  tarry::platform::os::SqliteDefaultsStore& store = opened.store();
  // The note above said why; reading or writing a domain that lives only in this process would
  // mislead.
  if (!store.persistent() && !store.readOnly()) return 1;
  const std::vector<std::string> args(argv + 2, argv + argc);
  if (store.readOnly() && !args.empty() && args[0] != "read") {
    std::cerr << "tarry defaults: " << tarry::platform::os::SqliteDefaultsStore::defaultPath()
              << " is read-only; nothing was changed\n";
    return 1;
  }
  return tarry::cli::runDefaultsCommand(store, args, std::cout, std::cerr);
}

}  // namespace

int main(int argc, char** argv) {
  // Before the flag checks: a value written with `defaults write` may itself look like a flag.
  if (argc >= 2 && std::string_view(argv[1]) == "defaults") return runDefaults(argc, argv);
  if (argc >= 2 && std::string_view(argv[1]) == "apps") return tarry::cli::runApps(argc, argv);
  if (hasFlag(argc, argv, "--help") || hasFlag(argc, argv, "-h")) {
    std::fputs(tarry::cli::helpText().c_str(), stdout);
    return 0;
  }
  if (hasFlag(argc, argv, "--version")) {
    std::printf("tarry %s\n", TARRY_VERSION);
    return 0;
  }
  // NOTE: demos are checked in a fixed order and the first present wins.
  if (hasFlag(argc, argv, "--telemetry-demo")) return tarry::cli::runTelemetryDemo();
  if (hasFlag(argc, argv, "--remote-config-demo")) return tarry::cli::runRemoteConfigDemo(argc, argv);
  if (hasFlag(argc, argv, "--hud-demo")) return tarry::cli::runHudDemo(argc, argv);
  // Requests to the copy already running on this display.
  if (argc >= 2 && std::string_view(argv[1]) == "--pause") {
    char* end = nullptr;
    const long minutes = argc == 3 ? std::strtol(argv[2], &end, 10) : -1;
    if (argc != 3 || end == argv[2] || *end != '\0' || minutes < 0 || minutes > 1440) {
      std::fprintf(stderr, "tarry: --pause needs minutes from 0 to 1440 (0 = until 06:00)\n%s",
                   tarry::cli::shortUsage().c_str());
      return 2;
    }
    return tarry::desktop::sendToRunningCopy("pause " + std::to_string(minutes));
  }
  if (argc == 2 && std::string_view(argv[1]) == "--resume")
    return tarry::desktop::sendToRunningCopy("resume");
  tarry::desktop::DesktopOptions options;
  // Qt's own single-dash options (-display, -platform, …) pass on to the desktop program; a long
  // option this program does not know is a mistake worth saying so about.
  for (int i = 1; i < argc; ++i) {
    if (std::string_view(argv[i]) == "--autostart") {
      options.loginLaunch = true;
    } else if (std::strncmp(argv[i], "--", 2) == 0) {
      std::fprintf(stderr, "tarry: unknown option %s\n%s", argv[i], tarry::cli::shortUsage().c_str());
      return 2;
    }
  }
  // Qt must not see the program's own option.
  std::vector<char*> qtArgs;
  for (int i = 0; i < argc; ++i) {
    if (std::string_view(argv[i]) != "--autostart") qtArgs.push_back(argv[i]);
  }
  int qtArgc = static_cast<int>(qtArgs.size());
  qtArgs.push_back(nullptr);
  return tarry::desktop::runDesktop(qtArgc, qtArgs.data(), options);
}
