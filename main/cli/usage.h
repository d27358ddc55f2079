#pragma once

#include <span>
#include <string>
#include <string_view>

namespace tarry::cli {

/// One way of running the program. `--help` prints `invocation` and `summary`; the manual page
/// prints all three. Words in capitals in `invocation` are the values the user supplies.
struct Usage final {
  /// What follows "tarry" on the command line ("" for the program alone).
  std::string_view invocation;
  /// One line, lower case, no full stop.
  std::string_view summary;
  /// Sentences the manual page adds ("" when the summary says it all).
  std::string_view details;
};

/// The options, in the order `--help` and the manual page list them.
[[nodiscard]] std::span<const Usage> options();
/// The commands (a word, then its own arguments).
[[nodiscard]] std::span<const Usage> commands();

/// The two lines of how the program is run and a pointer to `--help`, for a wrong command line.
[[nodiscard]] std::string shortUsage();
/// What `tarry --help` prints.
[[nodiscard]] std::string helpText();

}  // namespace tarry::cli
