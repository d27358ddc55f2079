#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace tarry::platform::wayland {

/// One connection to the IPC socket of sway (or a compositor speaking its protocol): a magic
/// "i3-ipc", the payload length and the message type, each a native 32-bit integer, then JSON.
class SwayIpc final {
 public:
  enum Type : std::uint32_t {
    runCommand = 0,
    subscribe = 2,
    getTree = 4,
    getVersion = 7,
    sendTick = 10,
  };
  /// Event types carry the high bit.
  static constexpr std::uint32_t kEventWorkspace = 0x80000000;
  static constexpr std::uint32_t kEventWindow = 0x80000003;
  static constexpr std::uint32_t kEventBinding = 0x80000005;
  static constexpr std::uint32_t kEventShutdown = 0x80000006;
  static constexpr std::uint32_t kEventTick = 0x80000007;

  struct Message {
    std::uint32_t type = 0;
    nlohmann::json body;
  };

  /// `$SWAYSOCK`; empty when it is not set.
  [[nodiscard]] static std::string socketPath();
  /// Connects to `path`; nothing (and `error` says why) when nobody answers there.
  [[nodiscard]] static std::unique_ptr<SwayIpc> connect(const std::string& path, std::string& error);

  ~SwayIpc();
  SwayIpc(const SwayIpc&) = delete;
  SwayIpc& operator=(const SwayIpc&) = delete;

  /// Sends one request and waits for its reply; nothing when the connection is lost.
  /// NOTE: thread-safe, but not on a connection that has subscribed to events.
  [[nodiscard]] std::optional<nlohmann::json> request(std::uint32_t type, const std::string& payload);
  /// Runs commands (";"-separated); true when every one of them succeeded, else `error` holds the
  /// first failure.
  bool command(const std::string& commands, std::string* error = nullptr);
  /// Sends without waiting (for `subscribe`, whose answer comes back through `read`).
  bool send(std::uint32_t type, const std::string& payload);
  /// Blocks for the next message; nothing when the connection ended or was shut down.
  [[nodiscard]] std::optional<Message> read();
  /// Ends a blocking `read` from another thread.
  void shutdown();

 private:
  explicit SwayIpc(int fd) : fd_(fd) {}
  bool writeMessage(std::uint32_t type, const std::string& payload);

  int fd_;
  std::mutex mutex_;
};

/// The text of a command for the IPC: `text` in double quotes, with quotes and backslashes escaped.
[[nodiscard]] std::string quoteCommandArgument(const std::string& text);

}  // namespace tarry::platform::wayland
