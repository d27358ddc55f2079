// Writes the manual page tarry(1): the sections of the template, with the options and commands
// from the table that `tarry --help` prints, so the two cannot tell different stories.
//   tarry-man-page TEMPLATE VERSION OUTPUT
#include "cli/usage.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <span>
#include <sstream>
#include <string>
#include <string_view>

namespace {

using tarry::cli::Usage;

/// Text for roff: backslashes doubled, and a dash that starts a word (an option) made a minus sign.
std::string roff(std::string_view text) {
  std::string out;
  char previous = ' ';
  for (const char c : text) {
    if (c == '\\') {
      out += "\\e";
    } else if (c == '-' && (previous == ' ' || previous == '-' || previous == '"' || previous == '(')) {
      out += "\\-";
    } else {
      out += c;
    }
    previous = c;
  }
  return out;
}

/// "defaults read [KEY]" → the command in bold, the values the user supplies in italics.
std::string invocation(std::string_view words) {
  std::string out = "\\fBtarry\\fR";
  std::istringstream in{std::string(words)};
  for (std::string word; in >> word;) {
    const auto first = word.find_first_not_of('[');
    const auto last = word.find_last_not_of("]...");
    const std::string core = word.substr(first, last - first + 1);
    const bool value = std::all_of(core.begin(), core.end(),
                                   [](char c) { return std::isupper(static_cast<unsigned char>(c)); });
    out.append(" ").append(word, 0, first).append(value ? "\\fI" : "\\fB").append(roff(core));
    out.append("\\fR").append(word, last + 1);
  }
  return out;
}

std::string section(std::span<const Usage> entries) {
  std::string out;
  for (const Usage& u : entries) {
    std::string summary(u.summary);
    summary[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(summary[0])));
    out.append(".TP\n").append(invocation(u.invocation)).append("\n").append(roff(summary)).append(".\n");
    if (!u.details.empty()) out.append(roff(u.details)).append("\n");
  }
  if (!out.empty()) out.pop_back();
  return out;
}

void replace(std::string& text, std::string_view placeholder, const std::string& with) {
  const auto at = text.find(placeholder);
  if (at != std::string::npos) text.replace(at, placeholder.size(), with);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fputs("usage: tarry-man-page TEMPLATE VERSION OUTPUT\n", stderr);
    return 2;
  }
  std::ifstream in(argv[1]);
  std::stringstream page;
  page << in.rdbuf();
  if (!in) {
    std::fprintf(stderr, "tarry-man-page: cannot read %s\n", argv[1]);
    return 1;
  }
  std::string text = page.str();
  replace(text, "@VERSION@", argv[2]);
  replace(text, "@OPTIONS@", section(tarry::cli::options()));
  replace(text, "@COMMANDS@", section(tarry::cli::commands()));
  std::ofstream out(argv[3], std::ios::trunc);
  out << text;
  if (!out.flush()) {
    std::fprintf(stderr, "tarry-man-page: cannot write %s\n", argv[3]);
    return 1;
  }
  return 0;
}
