#include "platform/kde/dbus_wire.h"

#include <bit>
#include <cctype>
#include <cstring>
#include <sstream>

namespace tarry::platform::kde {
namespace {

class Writer {
 public:
  void align(std::size_t n) {
    while (out_.size() % n) out_.push_back('\0');
  }
  void byte(std::uint8_t b) { out_.push_back(static_cast<char>(b)); }
  void u32(std::uint32_t v) {
    align(4);
    char bytes[4];
    std::memcpy(bytes, &v, 4);  // NOTE: the message says 'l' (little-endian), as this machine is
    out_.append(bytes, 4);
  }
  void patch(std::size_t at, std::uint32_t v) { std::memcpy(out_.data() + at, &v, 4); }
  void string(const std::string& s) {
    u32(static_cast<std::uint32_t>(s.size()));
    out_ += s;
    out_.push_back('\0');
  }
  void signature(const std::string& s) {
    byte(static_cast<std::uint8_t>(s.size()));
    out_ += s;
    out_.push_back('\0');
  }
  void field(std::uint8_t code, char type, const std::string& value) {
    align(8);
    byte(code);
    signature(std::string(1, type));
    if (type == 'g') {
      signature(value);
    } else {
      string(value);
    }
  }
  [[nodiscard]] std::size_t size() const { return out_.size(); }
  std::string& bytes() { return out_; }

 private:
  std::string out_;
};

static_assert(std::endian::native == std::endian::little, "the messages are written little-endian");

}  // namespace

std::string marshalDBusCall(const DBusCall& call, std::uint32_t serial) {
  Writer body;
  for (const std::vector<std::string>& array : call.arrays) {
    body.u32(0);
    const std::size_t lengthAt = body.size() - 4;
    const std::size_t start = body.size();
    for (const std::string& s : array) body.string(s);
    body.patch(lengthAt, static_cast<std::uint32_t>(body.size() - start));
  }

  Writer message;
  message.byte('l');
  message.byte(1);  // method call
  message.byte(0);
  message.byte(1);  // protocol version
  message.u32(static_cast<std::uint32_t>(body.size()));
  message.u32(serial);
  message.u32(0);
  const std::size_t fieldsAt = message.size();
  message.field(1, 'o', call.path);
  if (!call.interface.empty()) message.field(2, 's', call.interface);
  message.field(3, 's', call.member);
  message.field(6, 's', call.destination);
  std::string signature;
  for (std::size_t i = 0; i < call.arrays.size(); ++i) signature += "as";
  if (!signature.empty()) message.field(8, 'g', signature);
  message.patch(fieldsAt - 4, static_cast<std::uint32_t>(message.size() - fieldsAt));
  message.align(8);
  return message.bytes() + body.bytes();
}

std::string dbusSessionBytes(const std::vector<DBusCall>& calls) {
  std::string out = "BEGIN\r\n";
  out += marshalDBusCall(
      {"org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "Hello", {}}, 1);
  std::uint32_t serial = 2;
  for (const DBusCall& call : calls) out += marshalDBusCall(call, serial++);
  return out;
}

std::string dbusAuthLine(unsigned uid) {
  const std::string decimal = std::to_string(uid);
  std::ostringstream hex;
  hex << std::hex;
  for (const char c : decimal) hex << static_cast<int>(static_cast<unsigned char>(c));
  return std::string(1, '\0') + "AUTH EXTERNAL " + hex.str() + "\r\n";
}

namespace {

// Address values escape bytes as %xx.
std::string unescape(const std::string& value) {
  std::string out;
  for (std::size_t i = 0; i < value.size(); ++i) {
    if (value[i] == '%' && i + 2 < value.size() && std::isxdigit(static_cast<unsigned char>(value[i + 1])) &&
        std::isxdigit(static_cast<unsigned char>(value[i + 2]))) {
      out.push_back(static_cast<char>(std::stoi(value.substr(i + 1, 2), nullptr, 16)));
      i += 2;
    } else {
      out.push_back(value[i]);
    }
  }
  return out;
}

}  // namespace

std::string dbusSocketPath(const std::string& address) {
  // An address may list several transports separated by ';'; the first Unix one is taken.
  std::istringstream transports(address);
  std::string transport;
  while (std::getline(transports, transport, ';')) {
    if (!transport.starts_with("unix:")) continue;
    std::istringstream keys(transport.substr(5));
    std::string pair;
    while (std::getline(keys, pair, ',')) {
      if (pair.starts_with("path=")) return unescape(pair.substr(5));
      if (pair.starts_with("abstract=")) return std::string(1, '\0') + unescape(pair.substr(9));
    }
  }
  return {};
}

}  // namespace tarry::platform::kde
