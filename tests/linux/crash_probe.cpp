// A small program that installs the crash recorder and then fails the way it is told, for the
// crash tests: `tarry-crash-probe CRASH_LOG segv|throw|facts`.
#include "platform/linux/linux_crash_reports.h"

#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>

namespace {

// Kept out of line so that the back-trace has frames of this program to show.
[[gnu::noinline]] void failBadly(const char* how) {
  if (std::strcmp(how, "segv") == 0) {
    volatile int* nowhere = nullptr;
    *nowhere = 42;
  }
  if (std::strcmp(how, "throw") == 0) throw std::runtime_error("the probe gave up");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  if (std::strcmp(argv[2], "facts") == 0) {
    const auto facts = tarry::platform::os::readSystemFacts();
    std::printf("%s\n%s\n%s\n%s\n", facts.processName.c_str(), facts.osVersion.c_str(), facts.arch.c_str(),
                facts.buildId.c_str());
    return 0;
  }
  tarry::platform::os::LinuxCrashReports crashes("tarry-crash-probe");
  // Without its file the recorder must still let the process die of the signal.
  if (!crashes.install(argv[1])) std::fputs("crash.log not opened\n", stderr);
  failBadly(argv[2]);
  return 0;
}
