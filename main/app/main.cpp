// Process entry: picks what this run of the program is (a command-line tool, a demo, or the
// desktop program) before anything else starts.
#include <cstdio>
#include <cstring>
#include <string_view>

namespace {

constexpr const char* kUsage =
    "Usage: tarry [--help] [--version]\n"
    "       tarry --hud-demo | --remote-config-demo\n"
    "       tarry defaults read [KEY] | write KEY JSON | delete KEY\n";

bool hasFlag(int argc, char** argv, std::string_view flag) {
  for (int i = 1; i < argc; ++i) {
    if (flag == argv[i]) return true;
  }
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  if (hasFlag(argc, argv, "--help") || hasFlag(argc, argv, "-h")) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  if (hasFlag(argc, argv, "--version")) {
    std::printf("tarry %s\n", TARRY_VERSION);
    return 0;
  }
  // Entry points are added here as the program grows: defaults, demos, the desktop program.
  std::fputs(kUsage, stderr);
  return 2;
}
