// Any text with any realistic names: redaction never fails, is stable when applied again, leaves
// no long-enough user or host name outside the placeholders, and no /home/<name> path.
#include "diagnostics/redact.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace {

[[noreturn]] void fail(const char* what, const std::string& text) {
  std::fprintf(stderr, "%s: [%s]\n", what, text.c_str());
  std::abort();
}

/// A name from the next bytes: login and host names use letters, digits, "-", "_" and ".".
std::string takeName(std::string_view& input, std::size_t length) {
  static constexpr std::string_view kAlphabet = "abcdefghijklmnopqrstuvwxyz0123456789-_.";
  std::string name;
  while (name.size() < length && !input.empty()) {
    name.push_back(kAlphabet[static_cast<unsigned char>(input[0]) % kAlphabet.size()]);
    input.remove_prefix(1);
  }
  return name;
}

std::string withoutPlaceholders(std::string_view text) {
  // Built anew rather than with std::string::replace, which gcc 12 at -O2 warns about wrongly
  // (-Wrestrict).
  std::string out;
  for (std::size_t i = 0; i < text.size();) {
    if (text.compare(i, 6, "<user>") == 0 || text.compare(i, 6, "<host>") == 0) {
      out.push_back('\x01');
      i += 6;
    } else {
      out.push_back(text[i++]);
    }
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  if (input.size() < 2) return 0;
  const std::size_t userLength = static_cast<unsigned char>(input[0]) % 9;
  const std::size_t hostLength = static_cast<unsigned char>(input[1]) % 13;
  input.remove_prefix(2);
  tarry::diagnostics::RedactNames names;
  names.userName = takeName(input, userLength);
  names.hostName = takeName(input, hostLength);
  names.homeDirectory = "/home/" + names.userName;

  const std::string once = tarry::diagnostics::redact(input, names);
  if (tarry::diagnostics::redact(once, names) != once) fail("not stable", once);
  const std::string plain = withoutPlaceholders(once);
  if (names.userName.size() >= 3 && plain.find(names.userName) != std::string::npos) fail("user name left", once);
  if (names.hostName.size() >= 3 && plain.find(names.hostName) != std::string::npos) fail("host name left", once);
  for (auto at = once.find("/home/"); at != std::string::npos; at = once.find("/home/", at + 1)) {
    const std::size_t next = at + 6;
    if (next < once.size() && once.compare(next, 6, "<user>") != 0 &&
        std::string_view("/\"' \t\n\v\f\r").find(once[next]) == std::string_view::npos) {
      fail("home path left", once);
    }
  }
  return 0;
}
