#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tarry::update {

/// One release as the feed describes it.
struct Release {
  std::string version;
  /// The download address; always https.
  std::string url;
  /// The expected SHA-256 of the download, as the feed gives it.
  std::string sha256;
  /// Release notes for the offer; empty when the feed has none.
  std::string notes;

  friend bool operator==(const Release&, const Release&) = default;
};

/// The one text for any feed that cannot be used.
inline constexpr const char* kUnreadableFeed = "The update information could not be read.";

/// The release in a feed document; nothing unless it is a JSON object with string `version`,
/// `sha256` and `url`, the url an absolute https address. `notes` is kept when it is a string.
[[nodiscard]] std::optional<Release> parseRelease(std::string_view body);

/// True when `url` is an absolute https address with a host.
[[nodiscard]] bool isHttpsURL(std::string_view url);

/// True when version `a` is newer than `b`: dot-separated numbers compared in order, missing
/// positions and pieces that are not numbers counting as 0 (1.10 > 1.9; 1.2 == 1.2.0).
[[nodiscard]] bool isNewer(std::string_view a, std::string_view b);

}  // namespace tarry::update
