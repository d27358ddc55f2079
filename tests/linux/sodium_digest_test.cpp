#include "platform/linux/sodium_digest.h"

#include <gtest/gtest.h>
#include <sodium.h>

#include <array>
#include <fstream>
#include <string>

#include "temp_dir.h"

namespace tarry::platform::os {
namespace {

using testing::TempDir;

void writeFile(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

TEST(SodiumDigest, Sha256OfTextAndFilesAgree) {
  const SodiumDigest digest;
  EXPECT_EQ(digest.sha256Hex("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(digest.sha256Hex(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");

  // A file larger than one read chunk, with a tail that does not fill the last one.
  TempDir dir;
  std::string big(200 * 1024 + 7, '\0');
  for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 31 % 251);
  writeFile(dir / "big", big);
  EXPECT_EQ(digest.sha256FileHex(dir / "big"), digest.sha256Hex(big));
  EXPECT_EQ(digest.sha256FileHex(dir / "missing"), "");
  EXPECT_EQ(digest.sha256FileHex(dir.path()), "") << "a directory is not a readable file";
}

TEST(SodiumDigest, FileSignatureHoldsOnlyForTheSignedBytesAndKey) {
  const SodiumDigest digest;
  std::array<unsigned char, crypto_sign_PUBLICKEYBYTES> pk{};
  std::array<unsigned char, crypto_sign_SECRETKEYBYTES> sk{};
  crypto_sign_keypair(pk.data(), sk.data());
  std::array<unsigned char, crypto_sign_PUBLICKEYBYTES> otherPk{};
  std::array<unsigned char, crypto_sign_SECRETKEYBYTES> otherSk{};
  crypto_sign_keypair(otherPk.data(), otherSk.data());

  TempDir dir;
  const std::string archive(150 * 1024, 'x');
  writeFile(dir / "archive", archive);
  // The release side: Ed25519ph over the same bytes.
  crypto_sign_state state;
  crypto_sign_init(&state);
  crypto_sign_update(&state, reinterpret_cast<const unsigned char*>(archive.data()), archive.size());
  std::array<unsigned char, crypto_sign_BYTES> sig{};
  crypto_sign_final_create(&state, sig.data(), nullptr, sk.data());

  const std::string signature(reinterpret_cast<const char*>(sig.data()), sig.size());
  const std::string key(reinterpret_cast<const char*>(pk.data()), pk.size());
  const std::string otherKey(reinterpret_cast<const char*>(otherPk.data()), otherPk.size());
  EXPECT_TRUE(digest.verifyEd25519File(dir / "archive", signature, key));
  EXPECT_FALSE(digest.verifyEd25519File(dir / "archive", signature, otherKey));

  std::string tampered = archive;
  tampered[100000] = 'y';
  writeFile(dir / "tampered", tampered);
  EXPECT_FALSE(digest.verifyEd25519File(dir / "tampered", signature, key));

  EXPECT_FALSE(digest.verifyEd25519File(dir / "missing", signature, key));
  EXPECT_FALSE(digest.verifyEd25519File(dir / "archive", signature.substr(1), key));
  EXPECT_FALSE(digest.verifyEd25519File(dir / "archive", signature, key.substr(1)));
}

}  // namespace
}  // namespace tarry::platform::os
