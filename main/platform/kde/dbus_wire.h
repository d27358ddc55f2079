#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tarry::platform::kde {

/// D-Bus messages written out byte by byte, for a process that may not use a D-Bus library: the
/// helper that outlives the program runs between fork() and _exit() of a threaded process, where
/// only async-signal-safe calls are allowed, so everything it sends is prepared beforehand.

/// A method call (little-endian, protocol version 1) with string-array arguments, one `as` per
/// entry of `arrays`; an empty list makes a call without arguments.
struct DBusCall {
  std::string destination;
  std::string path;
  std::string interface;
  std::string member;
  std::vector<std::vector<std::string>> arrays;
};
[[nodiscard]] std::string marshalDBusCall(const DBusCall& call, std::uint32_t serial);

/// The bytes a client sends after the server's "OK" line: BEGIN, the bus's Hello, then `calls`
/// with serials 2, 3, ...
[[nodiscard]] std::string dbusSessionBytes(const std::vector<DBusCall>& calls);

/// The first line of a client's authentication (the credentials byte and AUTH EXTERNAL for `uid`).
[[nodiscard]] std::string dbusAuthLine(unsigned uid);

/// The socket path of a `unix:path=...` or `unix:abstract=...` bus address (abstract ones start
/// with a NUL byte); empty when the address names no Unix socket.
[[nodiscard]] std::string dbusSocketPath(const std::string& address);

}  // namespace tarry::platform::kde
