// Any bytes, taken as the release feed: the parser never fails badly, accepts only https
// addresses, and the version order it feeds is a strict order (never newer than itself, never
// both ways).
#include "update/release.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace {

[[noreturn]] void fail(const char* what, std::string_view a, std::string_view b = {}) {
  std::fprintf(stderr, "%s: [%.*s] [%.*s]\n", what, static_cast<int>(a.size()), a.data(), static_cast<int>(b.size()),
               b.data());
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  if (const auto release = tarry::update::parseRelease(input)) {
    if (release->url.rfind("https://", 0) != 0 || !tarry::update::isHttpsURL(release->url)) {
      fail("accepted a url that is not https", release->url);
    }
  }
  // The raw bytes, cut in two, as a pair of versions.
  const std::string_view a = input.substr(0, size / 2);
  const std::string_view b = input.substr(size / 2);
  if (tarry::update::isNewer(a, a)) fail("newer than itself", a);
  if (tarry::update::isNewer(a, b) && tarry::update::isNewer(b, a)) fail("newer both ways", a, b);
  if (tarry::update::isNewer(a, b) && tarry::update::isNewer(b, "0") == false && tarry::update::isNewer(a, "0") == false) {
    fail("newer than something that is not below zero, yet not above zero itself", a, b);
  }
  return 0;
}
