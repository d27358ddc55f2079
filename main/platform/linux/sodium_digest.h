#pragma once

#include "platform/digest.h"

namespace tarry::platform::os {

/// Digests and signatures through libsodium.
/// NOTE: a file signature is Ed25519ph (RFC 8032's pre-hashed Ed25519: SHA-512 of the file, then
/// Ed25519), so a file of any size is read in chunks and never held in memory whole. The release
/// side signs with libsodium's `crypto_sign_ed25519ph_final_create` over the same bytes.
class SodiumDigest final : public Digest {
 public:
  /// Initialises libsodium (safe to call from several threads and more than once).
  SodiumDigest();

  [[nodiscard]] std::string sha256Hex(std::string_view data) const override;
  [[nodiscard]] std::string sha256FileHex(const std::string& path) const override;
  [[nodiscard]] bool verifyEd25519File(const std::string& path, std::string_view signature,
                                       std::string_view publicKey) const override;
};

}  // namespace tarry::platform::os
