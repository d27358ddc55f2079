#include "platform/wayland/sway_ipc.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace tarry::platform::wayland {
namespace {

constexpr char kMagic[] = {'i', '3', '-', 'i', 'p', 'c'};
constexpr std::size_t kHeader = sizeof kMagic + 8;

bool writeAll(int fd, const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

bool readAll(int fd, char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t n = ::recv(fd, data, size, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace

std::string SwayIpc::socketPath() {
  const char* path = std::getenv("SWAYSOCK");
  return path ? std::string(path) : std::string();
}

std::unique_ptr<SwayIpc> SwayIpc::connect(const std::string& path, std::string& error) {
  if (path.empty()) {
    error = "SWAYSOCK is not set";
    return nullptr;
  }
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    error = "the IPC socket path is too long: " + path;
    return nullptr;
  }
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    error = std::string("cannot create a socket: ") + std::strerror(errno);
    return nullptr;
  }
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    error = "the compositor's IPC socket " + path + " does not answer: " + std::strerror(errno);
    ::close(fd);
    return nullptr;
  }
  return std::unique_ptr<SwayIpc>(new SwayIpc(fd));
}

SwayIpc::~SwayIpc() { ::close(fd_); }

bool SwayIpc::writeMessage(std::uint32_t type, const std::string& payload) {
  std::string buffer(kHeader + payload.size(), '\0');
  std::memcpy(buffer.data(), kMagic, sizeof kMagic);
  const auto length = static_cast<std::uint32_t>(payload.size());
  std::memcpy(buffer.data() + sizeof kMagic, &length, 4);
  std::memcpy(buffer.data() + sizeof kMagic + 4, &type, 4);
  std::memcpy(buffer.data() + kHeader, payload.data(), payload.size());
  return writeAll(fd_, buffer.data(), buffer.size());
}

bool SwayIpc::send(std::uint32_t type, const std::string& payload) {
  std::lock_guard lock(mutex_);
  return writeMessage(type, payload);
}

std::optional<SwayIpc::Message> SwayIpc::read() {
  char header[kHeader];
  if (!readAll(fd_, header, kHeader) || std::memcmp(header, kMagic, sizeof kMagic) != 0) return std::nullopt;
  std::uint32_t length = 0;
  Message message;
  std::memcpy(&length, header + sizeof kMagic, 4);
  std::memcpy(&message.type, header + sizeof kMagic + 4, 4);
  std::string payload(length, '\0');
  if (!readAll(fd_, payload.data(), length)) return std::nullopt;
  message.body = nlohmann::json::parse(payload, nullptr, false);
  return message;
}

std::optional<nlohmann::json> SwayIpc::request(std::uint32_t type, const std::string& payload) {
  std::lock_guard lock(mutex_);
  if (!writeMessage(type, payload)) return std::nullopt;
  for (;;) {
    std::optional<Message> reply = read();
    if (!reply) return std::nullopt;
    if (reply->type == type) return std::move(reply->body);
  }
}

bool SwayIpc::command(const std::string& commands, std::string* error) {
  std::optional<nlohmann::json> reply = request(runCommand, commands);
  if (!reply || !reply->is_array()) {
    if (error) *error = "the compositor's IPC socket stopped answering";
    return false;
  }
  for (const nlohmann::json& result : *reply) {
    if (result.value("success", false)) continue;
    if (error) *error = result.value("error", std::string("command failed"));
    return false;
  }
  return true;
}

void SwayIpc::shutdown() { ::shutdown(fd_, SHUT_RDWR); }

std::string quoteCommandArgument(const std::string& text) {
  std::string out = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out + "\"";
}

}  // namespace tarry::platform::wayland
