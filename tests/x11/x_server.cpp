#include "x_server.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <xcb/xcb.h>

#include <chrono>
#include <cstdlib>
#include <thread>

namespace tarry::test {
namespace {

void stop(pid_t pid) {
  if (pid <= 0) return;
  kill(pid, SIGTERM);
  for (int i = 0; i < 200; ++i) {
    if (waitpid(pid, nullptr, WNOHANG) == pid) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
}

}  // namespace

pid_t XServer::start(const std::vector<std::string>& argv, int keepFd) const {
  const pid_t pid = fork();
  if (pid != 0) return pid;
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  if (!display_.empty()) setenv("DISPLAY", display_.c_str(), 1);
  const int null = open("/dev/null", O_RDWR);
  dup2(null, STDIN_FILENO);
  dup2(null, STDOUT_FILENO);
  dup2(null, STDERR_FILENO);
  for (int fd = 3; fd < 256; ++fd) {
    if (fd != keepFd) close(fd);
  }
  execvp(args[0], args.data());
  _exit(127);
}

XServer::XServer(bool windowManager) {
  int fds[2];
  if (pipe(fds) != 0) return;
  server_ = start({"Xvfb", "-displayfd", std::to_string(fds[1]), "-screen", "0", "1280x800x24", "-nolisten",
                   "tcp", "-noreset"},
                  fds[1]);
  close(fds[1]);
  std::string number;
  pollfd pfd{fds[0], POLLIN, 0};
  while (poll(&pfd, 1, 10000) > 0) {
    char c = 0;
    if (read(fds[0], &c, 1) != 1 || c == '\n') break;
    number += c;
  }
  close(fds[0]);
  if (number.empty()) return;
  display_ = ":" + number;
  if (windowManager) {
    windowManager_ = start({"openbox", "--sm-disable"});
    // openbox is ready once it has claimed the EWMH check window.
    xcb_connection_t* c = xcb_connect(display_.c_str(), nullptr);
    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(c)).data->root;
    xcb_intern_atom_reply_t* atom =
        xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, 24, "_NET_SUPPORTING_WM_CHECK"), nullptr);
    for (int i = 0; atom && i < 500; ++i) {
      xcb_get_property_reply_t* prop = xcb_get_property_reply(
          c, xcb_get_property(c, 0, root, atom->atom, XCB_ATOM_WINDOW, 0, 1), nullptr);
      const bool ready = prop && xcb_get_property_value_length(prop) == 4;
      std::free(prop);
      if (ready) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    std::free(atom);
    xcb_disconnect(c);
  }
}

XServer::~XServer() {
  stop(windowManager_);
  stop(server_);
}

int XServer::run(const std::vector<std::string>& argv) const {
  const pid_t pid = start(argv);
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace tarry::test
