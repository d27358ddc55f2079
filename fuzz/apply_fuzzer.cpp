// Any bytes, taken as a 200 response of the configuration server, must leave every tunable inside
// its bounds and every text within its length, cut at a character boundary.
#include "settings/remote_config.h"
#include "settings/tunables.h"

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

using tarry::settings::kTunableCount;
using tarry::settings::kTunableRows;
using tarry::settings::T;
using tarry::settings::TunableKind;

[[noreturn]] void fail(const char* key, const char* what) {
  std::fprintf(stderr, "tunable %s: %s\n", key, what);
  std::abort();
}

/// Number of characters in valid UTF-8, or −1 when the text is not valid UTF-8.
long utf8Length(const std::string& s) {
  long count = 0;
  for (std::size_t i = 0; i < s.size(); ++count) {
    const auto b = static_cast<unsigned char>(s[i]);
    const std::size_t n = b < 0x80 ? 1 : (b >> 5) == 0x6 ? 2 : (b >> 4) == 0xE ? 3 : (b >> 3) == 0x1E ? 4 : 0;
    if (n == 0 || i + n > s.size()) return -1;
    for (std::size_t k = 1; k < n; ++k) {
      if ((static_cast<unsigned char>(s[i + k]) & 0xC0) != 0x80) return -1;
    }
    i += n;
  }
  return count;
}

void check(const tarry::settings::Tunables& tunables) {
  for (std::size_t i = 0; i < kTunableCount; ++i) {
    const auto& row = kTunableRows[i];
    const T t = static_cast<T>(i);
    const std::string key(row.key);
    if (row.kind == TunableKind::string) {
      const std::string text = tunables.text(t);
      const long length = utf8Length(text);
      if (length < 0) fail(key.c_str(), "text is not valid UTF-8");
      if (static_cast<std::size_t>(length) > row.maxChars) fail(key.c_str(), "text too long");
      if (row.emptyTextIgnored && text.empty()) fail(key.c_str(), "text emptied");
      continue;
    }
    const double v = tunables.real(t);
    if (!(v >= row.lower && v <= row.upper)) fail(key.c_str(), "number out of bounds");
    if (row.kind == TunableKind::integer && v != std::trunc(v)) fail(key.c_str(), "integer has a fraction");
    if (row.kind == TunableKind::boolean && v != 0 && v != 1) fail(key.c_str(), "flag is not 0 or 1");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tarry::settings::Tunables tunables;
  const tarry::platform::HttpResponse response{true, 200,
                                               std::string(reinterpret_cast<const char*>(data), size), ""};
  tarry::settings::applyRemoteConfig(tunables, response);
  check(tunables);
  // A second document on top of the first must keep the same promises.
  tarry::settings::applyRemoteConfig(tunables, response);
  check(tunables);
  return 0;
}
