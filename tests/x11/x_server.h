#pragma once

#include <sys/types.h>
#include <xcb/xcb.h>

#include <string>
#include <vector>

namespace tarry::test {

/// A child process on the test's X display, ended (SIGTERM, then SIGKILL) when destroyed.
class Process final {
 public:
  Process(const std::string& display, const std::vector<std::string>& argv);
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  [[nodiscard]] pid_t pid() const { return pid_; }
  /// Waits up to `seconds` for the process to end; true when it has.
  bool waitExit(double seconds);

 private:
  pid_t pid_ = -1;
  bool exited_ = false;
};

/// A private Xvfb on a free display number, optionally with openbox; every process it starts is
/// ended when it is destroyed.
class XServer final {
 public:
  explicit XServer(bool windowManager = false);
  ~XServer();
  XServer(const XServer&) = delete;
  XServer& operator=(const XServer&) = delete;

  [[nodiscard]] bool ok() const { return !display_.empty(); }
  /// ":N".
  [[nodiscard]] const std::string& display() const { return display_; }
  /// Runs a program against this display and waits for it; its exit status.
  int run(const std::vector<std::string>& argv) const;
  /// Ends the window manager (as a crash or a switch to another one would).
  void stopWindowManager();

 private:
  pid_t start(const std::vector<std::string>& argv, int keepFd = -1) const;
  std::string display_;
  pid_t server_ = -1;
  pid_t windowManager_ = -1;
  xcb_connection_t* probe_ = nullptr;
};

}  // namespace tarry::test
