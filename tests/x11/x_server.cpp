#include "x_server.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <xcb/xcb.h>

#include <chrono>
#include <cstdlib>
#include <random>
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

pid_t spawn(const std::string& display, const std::vector<std::string>& argv, int keepFd) {
  const pid_t pid = fork();
  if (pid != 0) return pid;
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  if (!display.empty()) setenv("DISPLAY", display.c_str(), 1);
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

}  // namespace

Process::Process(const std::string& display, const std::vector<std::string>& argv)
    : pid_(spawn(display, argv, -1)) {}

Process::~Process() {
  if (!exited_) stop(pid_);
}

bool Process::waitExit(double seconds) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!exited_) {
    if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
      exited_ = true;
      break;
    }
    if (std::chrono::steady_clock::now() > end) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return exited_;
}

pid_t XServer::start(const std::vector<std::string>& argv, int keepFd) const {
  return spawn(display_, argv, keepFd);
}

XServer::XServer(bool windowManager) {
  // A random display number well above the ones `Xvfb -displayfd` hands out from 0 up: a server
  // that starts while another one searches that way can lose its socket file to it.
  std::mt19937 random(std::random_device{}());
  std::string number;
  for (int attempt = 0; attempt < 20 && number.empty(); ++attempt) {
    const int candidate = std::uniform_int_distribution<int>(200, 999)(random);
    const std::string name = std::to_string(candidate);
    if (access(("/tmp/.X" + name + "-lock").c_str(), F_OK) == 0 ||
        access(("/tmp/.X11-unix/X" + name).c_str(), F_OK) == 0) {
      continue;
    }
    int fds[2];
    if (pipe(fds) != 0) return;
    const pid_t server = spawn({},
                               {"Xvfb", ":" + name, "-displayfd", std::to_string(fds[1]), "-screen", "0",
                                "1280x800x24", "-nolisten", "tcp", "-noreset"},
                               fds[1]);
    close(fds[1]);
    std::string written;
    pollfd pfd{fds[0], POLLIN, 0};
    while (poll(&pfd, 1, 10000) > 0) {
      char c = 0;
      if (read(fds[0], &c, 1) != 1 || c == '\n') break;
      written += c;
    }
    close(fds[0]);
    if (written == name) {
      server_ = server;
      number = name;
    } else {
      stop(server);  // the number was taken after all
    }
  }
  if (number.empty()) return;
  display_ = ":" + number;
  if (windowManager) {
    windowManager_ = start({"openbox", "--sm-disable"});
    // openbox drops windows mapped while it starts up: it is ready once a window of ours gets
    // mapped through it (reparented into a frame).
    // NOTE: the connection stays open until the server goes: were it closed, the next client
    // would get its window ids while openbox may still hold the old windows under them.
    probe_ = xcb_connect(display_.c_str(), nullptr);
    xcb_connection_t* c = probe_;
    const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(c)).data;
    for (int attempt = 0; attempt < 100; ++attempt) {
      const xcb_window_t w = xcb_generate_id(c);
      const std::uint32_t mask = XCB_EVENT_MASK_STRUCTURE_NOTIFY;
      xcb_create_window(c, XCB_COPY_FROM_PARENT, w, screen->root, 0, 0, 10, 10, 0,
                        XCB_WINDOW_CLASS_INPUT_OUTPUT, screen->root_visual, XCB_CW_EVENT_MASK, &mask);
      xcb_map_window(c, w);
      xcb_flush(c);
      bool reparented = false;
      const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(200);
      while (!reparented && std::chrono::steady_clock::now() < end) {
        xcb_generic_event_t* event = xcb_poll_for_event(c);
        if (!event) {
          std::this_thread::sleep_for(std::chrono::milliseconds(5));
          continue;
        }
        reparented = (event->response_type & 0x7F) == XCB_REPARENT_NOTIFY;
        std::free(event);
      }
      xcb_destroy_window(c, w);
      xcb_flush(c);
      if (reparented) break;
    }
  }
}

XServer::~XServer() {
  if (probe_) xcb_disconnect(probe_);
  stop(windowManager_);
  stop(server_);
}

void XServer::stopWindowManager() {
  stop(windowManager_);
  windowManager_ = -1;
}

int XServer::run(const std::vector<std::string>& argv) const {
  const pid_t pid = start(argv);
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace tarry::test
