// Process entry: picks what this run of the program is (a command-line tool, a demo, or the
// desktop program) before anything else starts.
#include "app/apps_main.h"
#include "app/defaults_command.h"
#include "app/desktop.h"
#include "app/hud_demo.h"
#include "app/remote_config_demo.h"
#include "platform/linux/sqlite_defaults_store.h"

#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr const char* kUsage =
    "Usage: tarry [--help] [--version]\n"
    "       tarry --hud-demo | --remote-config-demo\n"
    "       tarry defaults read [KEY] | write KEY JSON | delete KEY\n"
    "       tarry apps            the running apps with their ids and Ctrl+Q rules\n";

bool hasFlag(int argc, char** argv, std::string_view flag) {
  for (int i = 1; i < argc; ++i) {
    if (flag == argv[i]) return true;
  }
  return false;
}

int runDefaults(int argc, char** argv) {
  tarry::platform::os::SqliteDefaultsStore store(
      tarry::platform::os::SqliteDefaultsStore::defaultPath(),
      [](const std::string& line) { std::cerr << "tarry: " << line << '\n'; });
  // The note above said why; reading or writing a domain that lives only in this process would
  // mislead.
  if (!store.persistent() && !store.readOnly()) return 1;
  const std::vector<std::string> args(argv + 2, argv + argc);
  if (store.readOnly() && !args.empty() && args[0] != "read") {
    std::cerr << "tarry defaults: " << tarry::platform::os::SqliteDefaultsStore::defaultPath()
              << " is read-only; nothing was changed\n";
    return 1;
  }
  return tarry::app::runDefaultsCommand(store, args, std::cout, std::cerr);
}

}  // namespace

int main(int argc, char** argv) {
  // Before the flag checks: a value written with `defaults write` may itself look like a flag.
  if (argc >= 2 && std::string_view(argv[1]) == "defaults") return runDefaults(argc, argv);
  if (argc >= 2 && std::string_view(argv[1]) == "apps") return tarry::app::runApps(argc, argv);
  if (hasFlag(argc, argv, "--help") || hasFlag(argc, argv, "-h")) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  if (hasFlag(argc, argv, "--version")) {
    std::printf("tarry %s\n", TARRY_VERSION);
    return 0;
  }
  // NOTE: demos are checked in a fixed order and the first present wins; "--telemetry-demo" goes
  // before this one.
  if (hasFlag(argc, argv, "--remote-config-demo")) return tarry::app::runRemoteConfigDemo(argc, argv);
  if (hasFlag(argc, argv, "--hud-demo")) return tarry::app::runHudDemo(argc, argv);
  // Qt's own single-dash options (-display, -platform, …) pass on to the desktop program; a long
  // option this program does not know is a mistake worth saying so about.
  for (int i = 1; i < argc; ++i) {
    if (std::strncmp(argv[i], "--", 2) == 0) {
      std::fprintf(stderr, "tarry: unknown option %s\n%s", argv[i], kUsage);
      return 2;
    }
  }
  return tarry::app::runDesktop(argc, argv);
}
