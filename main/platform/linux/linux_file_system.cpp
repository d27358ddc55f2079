#include "platform/linux/linux_file_system.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <cstdlib>
#include <random>

namespace tarry::platform::os {
namespace {

namespace fs = std::filesystem;

bool writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

}  // namespace

std::string LinuxFileSystem::tempDirectory() const {
  std::error_code ec;
  const std::string dir = fs::temp_directory_path(ec).string();
  return ec || dir.empty() ? std::string("/tmp") : dir;
}

bool LinuxFileSystem::exists(const std::string& path) const {
  std::error_code ec;
  return fs::exists(path, ec);
}

bool LinuxFileSystem::createDirectories(const std::string& path) {
  std::error_code ec;
  fs::create_directories(path, ec);
  return fs::is_directory(path, ec);
}

bool LinuxFileSystem::append(const std::string& path, std::string_view bytes) {
  // O_APPEND makes each write land at the end even when another process appends too.
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  const bool ok = writeAll(fd, bytes);
  return ::close(fd) == 0 && ok;
}

bool LinuxFileSystem::write(const std::string& path, std::string_view bytes) {
  // Written beside the target and renamed over it, so a reader (or a crash) never sees half a file.
  std::string temp = path + ".tmp-XXXXXX";
  const int fd = ::mkstemp(temp.data());
  if (fd < 0) return false;
  struct stat old {};
  ::fchmod(fd, ::stat(path.c_str(), &old) == 0 ? (old.st_mode & 07777) : 0644);
  bool ok = writeAll(fd, bytes) && ::fdatasync(fd) == 0;
  ok = ::close(fd) == 0 && ok;
  ok = ok && ::rename(temp.c_str(), path.c_str()) == 0;
  if (!ok) ::unlink(temp.c_str());
  return ok;
}

std::optional<std::uint64_t> LinuxFileSystem::size(const std::string& path) const {
  std::error_code ec;
  const auto bytes = fs::file_size(path, ec);
  if (ec) return std::nullopt;
  return static_cast<std::uint64_t>(bytes);
}

std::optional<std::string> LinuxFileSystem::readTail(const std::string& path, std::uint64_t maxBytes) const {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  struct stat info {};
  if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    ::close(fd);
    return std::nullopt;
  }
  const auto total = static_cast<std::uint64_t>(info.st_size);
  const std::uint64_t start = total > maxBytes ? total - maxBytes : 0;
  std::string out(static_cast<std::size_t>(total - start), '\0');
  std::size_t got = 0;
  while (got < out.size()) {
    const ssize_t n = ::pread(fd, out.data() + got, out.size() - got, static_cast<off_t>(start + got));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      ::close(fd);
      return std::nullopt;
    }
    if (n == 0) break;  // the file shrank meanwhile
    got += static_cast<std::size_t>(n);
  }
  ::close(fd);
  out.resize(got);
  return out;
}

std::optional<std::vector<std::string>> LinuxFileSystem::list(const std::string& path) const {
  std::error_code ec;
  fs::directory_iterator it(path, ec);
  if (ec) return std::nullopt;
  std::vector<std::string> names;
  for (; it != fs::directory_iterator(); it.increment(ec)) {
    if (ec) return std::nullopt;
    names.push_back(it->path().filename().string());
  }
  if (ec) return std::nullopt;
  std::sort(names.begin(), names.end());
  return names;
}

std::string LinuxFileSystem::newUUID() {
  std::array<unsigned char, 16> bytes{};
  if (::getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
    std::random_device device;
    for (auto& b : bytes) b = static_cast<unsigned char>(device() & 0xff);
  }
  bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0f) | 0x40);  // version 4: random
  bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3f) | 0x80);  // RFC 4122 variant
  static constexpr char kHex[] = "0123456789abcdef";
  std::string text;
  text.reserve(36);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text.push_back('-');
    text.push_back(kHex[bytes[i] >> 4]);
    text.push_back(kHex[bytes[i] & 0x0f]);
  }
  return text;
}

std::string LinuxFileSystem::stateDirectory() const {
  // XDG Base Directory: a relative $XDG_STATE_HOME is invalid and ignored.
  if (const char* state = std::getenv("XDG_STATE_HOME"); state != nullptr && state[0] == '/') {
    return std::string(state) + "/tarry";
  }
  const char* home = std::getenv("HOME");
  if (home == nullptr || home[0] != '/') return tempDirectory() + "/tarry-state";
  return std::string(home) + "/.local/state/tarry";
}

bool LinuxFileSystem::restrictToOwner(const std::string& path) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) return false;
  return ::chmod(path.c_str(), S_ISDIR(info.st_mode) ? 0700 : 0600) == 0;
}

bool LinuxFileSystem::remove(const std::string& path) {
  std::error_code ec;
  fs::remove(path, ec);
  return !fs::exists(fs::symlink_status(path, ec));
}

std::optional<double> LinuxFileSystem::modified(const std::string& path) const {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) return std::nullopt;
  return static_cast<double>(info.st_mtim.tv_sec) + static_cast<double>(info.st_mtim.tv_nsec) / 1e9;
}

}  // namespace tarry::platform::os
