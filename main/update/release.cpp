#include "update/release.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <vector>

namespace tarry::update {
namespace {

bool isAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

/// The scheme of an absolute URL (RFC 3986: a letter, then letters, digits, "+", "-", "."),
/// or nothing when `url` has none.
std::optional<std::string_view> schemeOf(std::string_view url) {
  const auto colon = url.find(':');
  if (colon == std::string_view::npos || colon == 0 || !isAlpha(url[0])) return std::nullopt;
  for (std::size_t i = 1; i < colon; ++i) {
    const char c = url[i];
    if (!isAlpha(c) && !isDigit(c) && c != '+' && c != '-' && c != '.') return std::nullopt;
  }
  return url.substr(0, colon);
}

/// One piece of a version as a number: base-10 digits only, anything else counts as 0.
std::uint64_t pieceValue(std::string_view piece) {
  if (piece.empty() || !std::all_of(piece.begin(), piece.end(), isDigit)) return 0;
  std::uint64_t value = 0;
  for (const char c : piece) {
    const std::uint64_t digit = static_cast<std::uint64_t>(c - '0');
    // A number too long for 64 bits saturates: still larger than any shorter one.
    value = value > (UINT64_MAX - digit) / 10 ? UINT64_MAX : value * 10 + digit;
  }
  return value;
}

std::vector<std::uint64_t> pieces(std::string_view version) {
  std::vector<std::uint64_t> out;
  std::size_t start = 0;
  while (start <= version.size()) {
    const auto dot = version.find('.', start);
    const std::string_view piece =
        version.substr(start, dot == std::string_view::npos ? std::string_view::npos : dot - start);
    if (!piece.empty()) out.push_back(pieceValue(piece));
    if (dot == std::string_view::npos) break;
    start = dot + 1;
  }
  return out;
}

}  // namespace

bool isHttpsURL(std::string_view url) {
  // Spaces and control characters make no valid URL; the scheme must be exactly "https".
  for (const char c : url) {
    if (static_cast<unsigned char>(c) <= 0x20 || c == 0x7f) return false;
  }
  const auto scheme = schemeOf(url);
  if (!scheme || *scheme != "https") return false;
  std::string_view rest = url.substr(scheme->size() + 1);
  if (rest.substr(0, 2) != "//") return false;
  rest.remove_prefix(2);
  const std::string_view authority = rest.substr(0, rest.find_first_of("/?#"));
  const std::string_view hostPort =
      authority.substr(authority.rfind('@') == std::string_view::npos ? 0 : authority.rfind('@') + 1);
  return !hostPort.empty() && hostPort[0] != ':';
}

std::optional<Release> parseRelease(std::string_view body) {
  const nlohmann::json doc = nlohmann::json::parse(body, nullptr, false);
  if (!doc.is_object()) return std::nullopt;
  const auto text = [&doc](const char* key) -> const nlohmann::json* {
    const auto it = doc.find(key);
    return it != doc.end() && it->is_string() ? &*it : nullptr;
  };
  const auto* version = text("version");
  const auto* url = text("url");
  const auto* sha256 = text("sha256");
  if (version == nullptr || url == nullptr || sha256 == nullptr) return std::nullopt;
  Release release{version->get<std::string>(), url->get<std::string>(), sha256->get<std::string>(), ""};
  if (!isHttpsURL(release.url)) return std::nullopt;
  if (const auto* notes = text("notes")) release.notes = notes->get<std::string>();
  return release;
}

bool isNewer(std::string_view a, std::string_view b) {
  const auto pa = pieces(a);
  const auto pb = pieces(b);
  for (std::size_t i = 0; i < std::max(pa.size(), pb.size()); ++i) {
    const std::uint64_t x = i < pa.size() ? pa[i] : 0;
    const std::uint64_t y = i < pb.size() ? pb[i] : 0;
    if (x != y) return x > y;
  }
  return false;
}

}  // namespace tarry::update
