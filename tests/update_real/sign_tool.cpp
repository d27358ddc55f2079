// The release side of update signing, for the tests: `tarry-sign keygen SECRET_FILE` prints the
// public key in hex; `tarry-sign sign SECRET_FILE FILE` writes FILE.sig (64 bytes, Ed25519ph over
// the file, as the program verifies it).
#include <sodium.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

int main(int argc, char** argv) {
  if (sodium_init() < 0 || argc < 3) return 2;
  const std::string command = argv[1];
  if (command == "keygen") {
    unsigned char pk[crypto_sign_PUBLICKEYBYTES];
    unsigned char sk[crypto_sign_SECRETKEYBYTES];
    crypto_sign_keypair(pk, sk);
    std::ofstream(argv[2], std::ios::binary).write(reinterpret_cast<const char*>(sk), sizeof sk);
    for (const unsigned char b : pk) std::printf("%02x", b);
    std::printf("\n");
    return 0;
  }
  if (command == "sign" && argc == 4) {
    std::vector<char> sk(crypto_sign_SECRETKEYBYTES);
    std::ifstream(argv[2], std::ios::binary).read(sk.data(), static_cast<std::streamsize>(sk.size()));
    std::ifstream in(argv[3], std::ios::binary);
    if (!in) return 1;
    crypto_sign_ed25519ph_state state;
    crypto_sign_ed25519ph_init(&state);
    std::vector<char> chunk(1 << 16);
    while (in.read(chunk.data(), static_cast<std::streamsize>(chunk.size())) || in.gcount() > 0) {
      crypto_sign_ed25519ph_update(&state, reinterpret_cast<const unsigned char*>(chunk.data()),
                                   static_cast<unsigned long long>(in.gcount()));
    }
    unsigned char sig[crypto_sign_BYTES];
    crypto_sign_ed25519ph_final_create(&state, sig, nullptr,
                                       reinterpret_cast<const unsigned char*>(sk.data()));
    std::ofstream(std::string(argv[3]) + ".sig", std::ios::binary)
        .write(reinterpret_cast<const char*>(sig), sizeof sig);
    return 0;
  }
  return 2;
}
