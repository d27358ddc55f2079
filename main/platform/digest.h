#pragma once

#include <string>
#include <string_view>

namespace tarry::platform {

/// Digests and signatures, computed by a vetted library (never by hand-written code).
class Digest {
 public:
  Digest() = default;
  Digest(const Digest&) = delete;
  Digest& operator=(const Digest&) = delete;
  virtual ~Digest() = default;

  /// The SHA-256 of `data` as 64 lower-case hex digits.
  [[nodiscard]] virtual std::string sha256Hex(std::string_view data) const = 0;
  /// The SHA-256 of the file at `path` as 64 lower-case hex digits, read in chunks; empty when the
  /// file cannot be read.
  [[nodiscard]] virtual std::string sha256FileHex(const std::string& path) const = 0;
  /// True when `signature` (64 bytes) is a valid Ed25519 signature of the file at `path` by
  /// `publicKey` (32 bytes). False for any unreadable file or malformed key or signature.
  [[nodiscard]] virtual bool verifyEd25519File(const std::string& path, std::string_view signature,
                                               std::string_view publicKey) const = 0;
};

}  // namespace tarry::platform
