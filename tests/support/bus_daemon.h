#pragma once

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace tarry::testing {

/// A private D-Bus daemon for one test; `address` is empty when none could start.
class BusDaemon final {
 public:
  BusDaemon() {
    FILE* out = popen("dbus-daemon --session --nofork --print-address=1 --print-pid=1 2>/dev/null", "r");
    if (!out) return;
    pipe_ = out;
    char line[512];
    for (int i = 0; i < 2 && std::fgets(line, sizeof line, out); ++i) {
      const std::string text(line, std::strcspn(line, "\n"));
      if (text.find(':') != std::string::npos) {
        address = text;
      } else {
        pid = std::atoi(text.c_str());
      }
    }
  }
  ~BusDaemon() {
    if (pid > 0) kill(pid, SIGTERM);
    if (pipe_) pclose(pipe_);
  }
  BusDaemon(const BusDaemon&) = delete;
  BusDaemon& operator=(const BusDaemon&) = delete;

  std::string address;
  int pid = 0;

 private:
  FILE* pipe_ = nullptr;
};

}  // namespace tarry::testing
