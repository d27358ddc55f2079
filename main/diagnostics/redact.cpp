#include "diagnostics/redact.h"

#include <array>
#include <string>

namespace tarry::diagnostics {
namespace {

constexpr std::array<std::string_view, 2> kPlaceholders = {"<user>", "<host>"};

bool endsName(char c) { return c == '/' || c == '"' || c == '\'' || c == ' ' || (c >= '\t' && c <= '\r'); }

/// Replaces every "<prefix><name>" path with "<prefix><user>".
std::string redactHomePaths(std::string_view text, std::string_view prefix) {
  std::string out;
  out.reserve(text.size());
  std::size_t pos = 0;
  while (true) {
    const std::size_t hit = text.find(prefix, pos);
    if (hit == std::string_view::npos) break;
    std::size_t end = hit + prefix.size();
    while (end < text.size() && !endsName(text[end])) ++end;
    out.append(text.substr(pos, hit - pos));
    if (end == hit + prefix.size()) {
      out.append(prefix);  // "/home/" alone names nobody
    } else {
      out.append(prefix).append("<user>");
    }
    pos = end;
  }
  out.append(text.substr(pos));
  return out;
}

/// Replaces `word` with `with` everywhere outside the placeholders.
std::string replaceOutsidePlaceholders(std::string_view text, std::string_view word, std::string_view with) {
  std::string out;
  out.reserve(text.size());
  std::size_t i = 0;
  while (i < text.size()) {
    bool skipped = false;
    for (const std::string_view p : kPlaceholders) {
      if (text.compare(i, p.size(), p) == 0) {
        out.append(p);
        i += p.size();
        skipped = true;
        break;
      }
    }
    if (skipped) continue;
    if (text.compare(i, word.size(), word) == 0) {
      out.append(with);
      i += word.size();
      continue;
    }
    out.push_back(text[i]);
    ++i;
  }
  return out;
}

}  // namespace

std::string redact(std::string_view text, const RedactNames& names) {
  std::string out(text);
  const std::string& home = names.homeDirectory;
  // A home outside /home (/root, /var/lib/<name>) still names the user.
  if (home.size() >= 3 && home.rfind("/home/", 0) != 0 && home.rfind("/Users/", 0) != 0) {
    out = replaceOutsidePlaceholders(out, home, "/home/<user>");
  }
  out = redactHomePaths(out, "/home/");
  out = redactHomePaths(out, "/Users/");
  if (names.userName.size() >= 3) out = replaceOutsidePlaceholders(out, names.userName, "<user>");
  if (names.hostName.size() >= 3) out = replaceOutsidePlaceholders(out, names.hostName, "<host>");
  return out;
}

}  // namespace tarry::diagnostics
