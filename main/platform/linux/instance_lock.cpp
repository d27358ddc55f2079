#include "platform/linux/instance_lock.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace tarry::platform::os {
namespace {

/// ":0" → "0", "localhost:10.0" → "localhost_10.0": safe in a file name.
std::string displayPart(const std::string& display) {
  std::string out;
  for (char c : display) {
    const bool plain =
        (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '-';
    out += plain ? c : '_';
  }
  while (!out.empty() && out.front() == '_') out.erase(out.begin());
  return out.empty() ? "default" : out;
}

std::string errnoText(const char* what) { return std::string(what) + ": " + std::strerror(errno); }

/// Writes all of `data` or fails.
bool writeAll(int fd, const std::string& data) {
  std::size_t done = 0;
  while (done < data.size()) {
    const ssize_t n = ::send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

/// The socket address of `path`; false when the path is too long for one.
bool addressOf(const std::string& path, sockaddr_un& address) {
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) return false;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return true;
}

}  // namespace

InstanceLock::InstanceLock(const std::string& runtimeDir, const std::string& display) {
  const std::string base = runtimeDir + "/tarry-" + displayPart(display);
  lockPath_ = base + ".lock";
  socketPath_ = base + ".sock";
}

InstanceLock::~InstanceLock() {
  if (fd_ >= 0) ::close(fd_);
}

bool InstanceLock::tryAcquire(std::string& error) {
  if (fd_ >= 0) return true;
  const int fd = ::open(lockPath_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) {
    error = errnoText(lockPath_.c_str());
    return false;
  }
  if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK) error = errnoText("flock");
    ::close(fd);
    return false;
  }
  fd_ = fd;
  // NOTE: only the holder of the lock may remove a socket file: one left by a copy that was
  // killed would otherwise refuse the new copy's bind.
  ::unlink(socketPath_.c_str());
  return true;
}

bool InstanceLock::adoptHandedOn() {
  if (fd_ >= 0) return true;
  const char* value = std::getenv(kHandedOnLockVariable);
  if (value == nullptr) return false;
  const int fd = std::atoi(value);
  ::unsetenv(kHandedOnLockVariable);
  // Only a descriptor of this very lock file is taken, and kept from any program this one starts.
  struct stat handed {};
  struct stat mine {};
  if (fd < 3 || ::fstat(fd, &handed) != 0 || ::stat(lockPath_.c_str(), &mine) != 0 ||
      handed.st_dev != mine.st_dev || handed.st_ino != mine.st_ino) {
    return false;
  }
  // The same open file: its lock is this process's already; a failure here means it was not.
  if (::flock(fd, LOCK_EX | LOCK_NB) != 0) return false;
  ::fcntl(fd, F_SETFD, FD_CLOEXEC);
  fd_ = fd;
  return true;
}

bool InstanceLock::claimSocket() const {
  if (fd_ < 0) return false;
  sockaddr_un address{};
  if (!addressOf(socketPath_, address)) return false;
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  const bool answered = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
  ::close(fd);
  if (answered) return false;
  ::unlink(socketPath_.c_str());
  return true;
}

bool InstanceLock::send(const std::string& request, std::string& reply, std::string& error,
                        double timeoutSec) const {
  sockaddr_un address{};
  if (!addressOf(socketPath_, address)) {
    error = "socket path too long: " + socketPath_;
    return false;
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutSec);
  for (;;) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
      error = errnoText("socket");
      return false;
    }
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
      bool ok = writeAll(fd, request + "\n");
      std::string line;
      while (ok) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd p{fd, POLLIN, 0};
        const int ready = ::poll(&p, 1, static_cast<int>(std::max<long long>(left.count(), 1)));
        if (ready <= 0) {
          error = "the running copy did not answer";
          ok = false;
          break;
        }
        char buffer[256];
        const ssize_t n = ::read(fd, buffer, sizeof(buffer));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        line.append(buffer, static_cast<std::size_t>(n));
        if (line.find('\n') != std::string::npos) break;
      }
      ::close(fd);
      if (!ok) return false;
      reply = line.substr(0, line.find('\n'));
      if (reply.empty()) {
        error = "the running copy closed the connection";
        return false;
      }
      return true;
    }
    const int why = errno;
    ::close(fd);
    // The running copy holds the lock but may not listen yet: try again shortly.
    if (std::chrono::steady_clock::now() >= deadline) {
      errno = why;
      error = errnoText(socketPath_.c_str());
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

}  // namespace tarry::platform::os
