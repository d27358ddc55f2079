#pragma once

#include "diagnostics/app_telemetry.h"
#include "platform/workspace.h"

#include <cstddef>
#include <set>
#include <string>
#include <string_view>

namespace tarry::diagnostics {

/// Per-app records kept in memory until a usage-event sender exists to take them.
///
/// Category words, tested in this order:
/// - "finder": the file manager (com.apple.finder and this desktop's never-terminate set);
/// - "terminal": a terminal emulator (the built-in terminal identifiers and this desktop's);
/// - "browser": a web browser from a fixed list of common identifiers;
/// - "other": everything else, including apps without an identifier.
class BasicAppTelemetry final : public AppTelemetry {
 public:
  /// At most this many identifiers are kept per kind; later ones are dropped.
  static constexpr std::size_t kCap = 2000;

  explicit BasicAppTelemetry(const platform::Workspace& workspace) : workspace_(workspace) {}

  void recordAppSeen(const std::string& bundleID, std::string_view kind) override;
  [[nodiscard]] std::string category(const platform::RunningApp& app) override;

  /// The identifiers seen with kind "attempted" / "quit".
  [[nodiscard]] const std::set<std::string>& attempted() const { return attempted_; }
  [[nodiscard]] const std::set<std::string>& quit() const { return quit_; }

 private:
  const platform::Workspace& workspace_;
  std::set<std::string> attempted_;
  std::set<std::string> quit_;
};

}  // namespace tarry::diagnostics
