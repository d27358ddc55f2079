#include "platform/linux/linux_update_target.h"

#include "platform/linux/exec_args.h"
#include "platform/linux/instance_lock.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace tarry::platform::os {
namespace {

namespace fs = std::filesystem;

constexpr const char* kReadyVariable = "TARRY_UPDATE_READY_FD";

std::string safeVersion(const std::string& version) {
  std::string out;
  for (const char c : version) {
    if (std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '-' || c == '_' || c == '+')
      out.push_back(c);
  }
  return out.empty() || out.find_first_not_of('.') == std::string::npos ? "unknown" : out;
}

bool isExecutableFile(const fs::path& path) {
  std::error_code ec;
  return fs::is_regular_file(path, ec) && ::access(path.c_str(), X_OK) == 0;
}

/// Runs argv and waits; the exit status, or -1 when it could not start.
int runAndWait(const std::vector<std::string>& argv) {
  std::vector<char*> args = execArgs(argv);
  const pid_t child = ::fork();
  if (child < 0) return -1;
  if (child == 0) {
    ::execvp(args[0], args.data());
    ::_exit(127);
  }
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/// The standard output of argv (run with no input and its errors dropped), or nothing when it could
/// not start or did not exit with status 0.
std::optional<std::string> outputOf(const std::vector<std::string>& argv) {
  std::vector<char*> args = execArgs(argv);
  int out[2];
  if (::pipe2(out, O_CLOEXEC) != 0) return std::nullopt;
  const pid_t child = ::fork();
  if (child < 0) {
    ::close(out[0]);
    ::close(out[1]);
    return std::nullopt;
  }
  if (child == 0) {
    const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    if (null < 0 || ::dup2(null, STDIN_FILENO) < 0 || ::dup2(out[1], STDOUT_FILENO) < 0 ||
        ::dup2(null, STDERR_FILENO) < 0)
      ::_exit(127);
    ::execvp(args[0], args.data());
    ::_exit(127);
  }
  ::close(out[1]);
  std::string text;
  char buffer[4096];
  for (;;) {
    const ssize_t got = ::read(out[0], buffer, sizeof buffer);
    if (got > 0) {
      text.append(buffer, static_cast<std::size_t>(got));
    } else if (got == 0 || errno != EINTR) {
      break;
    }
  }
  ::close(out[0]);
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return std::nullopt;
  return text;
}

/// True when the package `tarry` is installed and its files include `exe` (directly or through a
/// link, as /bin → /usr/bin on a merged /usr). dpkg-query is asked: its database is its own.
bool installedByPackage(const fs::path& exe) {
  const auto files = outputOf({"dpkg-query", "--listfiles", "tarry"});
  if (!files) return false;
  std::istringstream in(*files);
  std::string line;
  std::error_code ec;
  while (std::getline(in, line)) {
    if (line.empty() || fs::path(line).filename() != exe.filename()) continue;
    if (line == exe.string() || fs::weakly_canonical(line, ec) == exe) return true;
  }
  return false;
}

bool inPath(const std::string& program) {
  const char* path = std::getenv("PATH");
  std::string dirs = path != nullptr ? path : "/usr/bin:/bin";
  std::size_t start = 0;
  while (start <= dirs.size()) {
    const auto colon = dirs.find(':', start);
    const std::string dir =
        dirs.substr(start, colon == std::string::npos ? std::string::npos : colon - start);
    if (!dir.empty() && isExecutableFile(fs::path(dir) / program)) return true;
    if (colon == std::string::npos) break;
    start = colon + 1;
  }
  return false;
}

}  // namespace

LinuxUpdateTarget::LinuxUpdateTarget(std::string executable, double startTimeoutSec)
    : executable_(std::move(executable)), startTimeoutSec_(startTimeoutSec) {
  std::error_code ec;
  if (executable_.empty()) executable_ = fs::read_symlink("/proc/self/exe", ec).string();
  const fs::path exe = fs::weakly_canonical(executable_, ec);
  // <base>/<folder>/bin/tarry with <base>/current -> <folder>, in a folder the user may write.
  const fs::path folder = exe.parent_path().parent_path();
  const fs::path base = folder.parent_path();
  const fs::path current = base / "current";
  if (exe.parent_path().filename() == "bin" && fs::is_symlink(current, ec) &&
      fs::weakly_canonical(current, ec) == folder && ::access(base.c_str(), W_OK) == 0) {
    kind_ = InstallKind::selfContained;
    base_ = base.string();
    previous_ = folder.filename().string();
  }
}

InstallKind LinuxUpdateTarget::kind() const {
  // NOTE: the package's file list, not the folder: a copy in /usr/local beside an installed package
  // is not the package's, and installing the package would not update it. Asked when an update is
  // installed, not at every start.
  if (!kind_) {
    std::error_code ec;
    kind_ = installedByPackage(fs::weakly_canonical(executable_, ec)) ? InstallKind::debianPackage
                                                                      : InstallKind::other;
  }
  return *kind_;
}

std::string LinuxUpdateTarget::switchCurrent(const std::string& folderName) {
  const fs::path link = fs::path(base_) / ".current.new";
  ::unlink(link.c_str());
  if (::symlink(folderName.c_str(), link.c_str()) != 0) return "Could not make the link to the new version.";
  if (::rename(link.c_str(), (fs::path(base_) / "current").c_str()) != 0) {
    ::unlink(link.c_str());
    return "Could not switch to the new version.";
  }
  return "";
}

std::string LinuxUpdateTarget::installArchive(const std::string& archive, const std::string& version) {
  if (kind_ != InstallKind::selfContained)
    return "This copy of Tarry is not installed in a folder of its own.";
  const std::string name = "tarry-" + safeVersion(version);
  if (name == previous_) return "Tarry " + version + " is the version already running.";
  std::string staging = base_ + "/.tarry-unpack-XXXXXX";
  if (::mkdtemp(staging.data()) == nullptr)
    return "Could not make a folder beside Tarry to unpack the update.";
  std::error_code ec;
  const auto cleanup = [&] { fs::remove_all(staging, ec); };
  // GNU tar drops leading "/" and refuses members with "..", so nothing lands outside `staging`.
  if (runAndWait({"tar", "-xf", archive, "-C", staging, "--no-same-owner"}) != 0) {
    cleanup();
    return "The update archive could not be unpacked.";
  }
  // The archive holds one folder with bin/tarry in it.
  std::vector<fs::path> entries;
  for (const auto& entry : fs::directory_iterator(staging, ec)) entries.push_back(entry.path());
  if (entries.size() != 1 || !isExecutableFile(entries[0] / "bin" / "tarry")) {
    cleanup();
    return "The update archive does not hold a Tarry program.";
  }
  const fs::path target = fs::path(base_) / name;
  fs::remove_all(target, ec);  // a copy left by an earlier, unfinished attempt; never the running one
  if (::rename(entries[0].c_str(), target.c_str()) != 0) {
    cleanup();
    return "The new version could not be put in place.";
  }
  cleanup();
  if (std::string error = switchCurrent(name); !error.empty()) {
    fs::remove_all(target, ec);
    return error;
  }
  installed_ = name;
  return "";
}

std::string LinuxUpdateTarget::relaunch() {
  const std::string exe = kind_ == InstallKind::selfContained ? base_ + "/current/bin/tarry" : executable_;
  const auto rollback = [this](const std::string& why) {
    if (kind_ == InstallKind::selfContained && !installed_.empty() && switchCurrent(previous_).empty()) {
      // The copy that failed goes; the next update unpacks afresh.
      std::error_code ec;
      fs::remove_all(fs::path(base_) / installed_, ec);
      installed_.clear();
      return why + " Tarry went back to the version you had.";
    }
    return why;
  };
  int ready[2];
  if (::pipe2(ready, O_CLOEXEC) != 0) return rollback("The new version could not be started.");
  // The environment is made before fork: the child only execs.
  std::vector<std::string> variables;
  for (char** v = environ; *v != nullptr; ++v) {
    const std::string_view entry(*v);
    const auto named = [&entry](std::string_view name) {
      return entry.size() > name.size() && entry.substr(0, name.size()) == name && entry[name.size()] == '=';
    };
    if (!named(kReadyVariable) && !named(kHandedOnLockVariable)) variables.emplace_back(entry);
  }
  variables.push_back(std::string(kReadyVariable) + "=" + std::to_string(ready[1]));
  if (lock_ >= 0) variables.push_back(std::string(kHandedOnLockVariable) + "=" + std::to_string(lock_));
  std::vector<char*> envp = execArgs(variables);
  const pid_t child = ::fork();
  if (child < 0) {
    ::close(ready[0]);
    ::close(ready[1]);
    return rollback("The new version could not be started.");
  }
  if (child == 0) {
    // Its own session, so that it outlives this process and its terminal.
    ::setsid();
    ::fcntl(ready[1], F_SETFD, 0);
    if (lock_ >= 0) ::fcntl(lock_, F_SETFD, 0);
    ::execle(exe.c_str(), exe.c_str(), static_cast<char*>(nullptr), envp.data());
    ::_exit(127);
  }
  ::close(ready[1]);
  std::string said;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(startTimeoutSec_);
  while (said.find("ready") == std::string::npos) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) break;
    pollfd wait{ready[0], POLLIN, 0};
    const int n = ::poll(&wait, 1, static_cast<int>(left.count()));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    char buffer[64];
    const ssize_t got = ::read(ready[0], buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;  // it closed the pipe, or died, without saying so
    said.append(buffer, static_cast<std::size_t>(got));
  }
  ::close(ready[0]);
  if (said.find("ready") == std::string::npos) {
    int status = 0;
    if (::waitpid(child, &status, WNOHANG) == 0) {
      ::kill(child, SIGTERM);
      ::waitpid(child, &status, 0);
    }
    return rollback("The new version did not start.");
  }
  // The copy that runs now and the one it replaced stay; older copies go.
  if (kind_ == InstallKind::selfContained) {
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(base_, ec)) {
      const std::string name = entry.path().filename().string();
      if (name.rfind("tarry-", 0) == 0 && name != installed_ && name != previous_ &&
          !fs::is_symlink(entry.path(), ec)) {
        fs::remove_all(entry.path(), ec);
      }
    }
  }
  return "";
}

std::string LinuxUpdateTarget::installPackage(const std::string& package) {
  if (!inPath("pkexec")) return "The system's installer cannot be asked for permission (pkexec is missing).";
  const int status = runAndWait({"pkexec", "apt-get", "install", "-y", package});
  switch (status) {
    case 0:
      return "";
    case 126:
      return "Authentication was dismissed.";
    case 127:
      return "No authentication agent is running, or this user may not install packages.";
    default:
      return "The package installer failed (exit status " + std::to_string(status) + ").";
  }
}

std::string LinuxUpdateTarget::fileURI(const std::string& path) {
  std::error_code ec;
  const std::string absolute = fs::absolute(path, ec).lexically_normal().string();
  std::string uri = "file://";
  for (const char c : absolute) {
    const auto byte = static_cast<unsigned char>(c);
    if (std::isalnum(byte) || c == '/' || c == '-' || c == '.' || c == '_' || c == '~') {
      uri.push_back(c);
    } else {
      constexpr char kHex[] = "0123456789ABCDEF";
      uri += {'%', kHex[byte >> 4], kHex[byte & 15]};
    }
  }
  return uri;
}

void LinuxUpdateTarget::showInFolder(const std::string& path) {
  const std::string folder = fs::path(path).parent_path().string();
  // NOTE: dbus-send splits array items at commas; the URI has none left unescaped.
  const std::vector<std::string> showItems = {"dbus-send",
                                              "--session",
                                              "--print-reply",
                                              "--reply-timeout=10000",
                                              "--dest=org.freedesktop.FileManager1",
                                              "--type=method_call",
                                              "/org/freedesktop/FileManager1",
                                              "org.freedesktop.FileManager1.ShowItems",
                                              "array:string:" + fileURI(path),
                                              "string:"};
  std::vector<char*> showArgs = execArgs(showItems);
  // Everything is prepared before fork: the children only exec, wait and exit.
  // Detached twice over, so the file manager is neither waited for nor left as a zombie.
  const pid_t child = ::fork();
  if (child == 0) {
    if (::fork() == 0) {
      ::setsid();
      const pid_t ask = ::fork();
      if (ask == 0) {
        // The reply is printed on stdout; nobody reads it.
        const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (null >= 0) ::dup2(null, STDOUT_FILENO);
        ::execvp(showArgs[0], showArgs.data());
        ::_exit(127);
      }
      int status = 0;
      if (ask > 0) {
        while (::waitpid(ask, &status, 0) < 0 && errno == EINTR) {
        }
        // A file manager (or one started for the name) selected the file.
        if (WIFEXITED(status) && WEXITSTATUS(status) == 0) ::_exit(0);
      }
      ::execlp("xdg-open", "xdg-open", folder.c_str(), static_cast<char*>(nullptr));
      ::_exit(127);
    }
    ::_exit(0);
  }
  if (child > 0) {
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
  }
}

void LinuxUpdateTarget::reportStarted() {
  const char* fd = std::getenv(kReadyVariable);
  if (fd == nullptr) return;
  const int n = std::atoi(fd);
  ::unsetenv(kReadyVariable);
  if (n < 3) return;
  [[maybe_unused]] const ssize_t written = ::write(n, "ready\n", 6);
  ::close(n);
}

}  // namespace tarry::platform::os
