#pragma once

#include <string>
#include <string_view>

namespace tarry::diagnostics {

/// The personal names removed from text that leaves the machine.
struct RedactNames {
  std::string userName;
  std::string hostName;
  /// The user's home directory; replaced like a /home/<name> path even when it lies elsewhere.
  std::string homeDirectory;
};

/// Replaces home-directory paths (/home/<name>, /Users/<name>) by "/home/<user>" or
/// "/Users/<user>", the user's name by "<user>" and the host name by "<host>"; names shorter than
/// 3 characters are left alone (they would match inside ordinary words).
/// NOTE: the placeholders themselves are never rewritten, so a user called "user" or "host" still
/// gives "<user>", and redacting twice changes nothing more.
[[nodiscard]] std::string redact(std::string_view text, const RedactNames& names);

}  // namespace tarry::diagnostics
