#include "platform/linux/sodium_digest.h"

#include <sodium.h>

#include <array>
#include <cstdio>
#include <memory>

namespace tarry::platform::os {
namespace {

constexpr std::size_t kChunk = 64 * 1024;

struct FileCloser {
  void operator()(std::FILE* f) const { std::fclose(f); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

/// Feeds the file at `path` to `update` chunk by chunk; false when it cannot be opened or read.
template <typename Update>
bool eachChunk(const std::string& path, Update update) {
  const File file(std::fopen(path.c_str(), "rbe"));
  if (!file) return false;
  std::array<unsigned char, kChunk> buffer{};
  for (;;) {
    const std::size_t n = std::fread(buffer.data(), 1, buffer.size(), file.get());
    if (n > 0) update(buffer.data(), n);
    if (n < buffer.size()) return std::ferror(file.get()) == 0;
  }
}

std::string hex(const unsigned char* bytes, std::size_t size) {
  std::string out(size * 2 + 1, '\0');
  sodium_bin2hex(out.data(), out.size(), bytes, size);
  out.pop_back();
  return out;
}

}  // namespace

SodiumDigest::SodiumDigest() {
  // sodium_init returns 1 when it already ran; -1 only when no random source exists, which the
  // hashing and verification used here do not need.
  if (sodium_init() < 0) return;
}

std::string SodiumDigest::sha256Hex(std::string_view data) const {
  std::array<unsigned char, crypto_hash_sha256_BYTES> out{};
  crypto_hash_sha256(out.data(), reinterpret_cast<const unsigned char*>(data.data()), data.size());
  return hex(out.data(), out.size());
}

std::string SodiumDigest::sha256FileHex(const std::string& path) const {
  crypto_hash_sha256_state state;
  crypto_hash_sha256_init(&state);
  const bool read = eachChunk(
      path, [&](const unsigned char* p, std::size_t n) { crypto_hash_sha256_update(&state, p, n); });
  if (!read) return {};
  std::array<unsigned char, crypto_hash_sha256_BYTES> out{};
  crypto_hash_sha256_final(&state, out.data());
  return hex(out.data(), out.size());
}

bool SodiumDigest::verifyEd25519File(const std::string& path, std::string_view signature,
                                     std::string_view publicKey) const {
  if (signature.size() != crypto_sign_BYTES || publicKey.size() != crypto_sign_PUBLICKEYBYTES) return false;
  crypto_sign_state state;
  crypto_sign_init(&state);
  const bool read =
      eachChunk(path, [&](const unsigned char* p, std::size_t n) { crypto_sign_update(&state, p, n); });
  if (!read) return false;
  // crypto_sign_final_verify takes a non-const signature pointer but does not write through it.
  std::array<unsigned char, crypto_sign_BYTES> sig{};
  for (std::size_t i = 0; i < sig.size(); ++i) sig[i] = static_cast<unsigned char>(signature[i]);
  return crypto_sign_final_verify(&state, sig.data(),
                                  reinterpret_cast<const unsigned char*>(publicKey.data())) == 0;
}

}  // namespace tarry::platform::os
