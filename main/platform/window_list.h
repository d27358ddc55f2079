#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tarry::platform {

/// One top-level window of an application.
struct WindowInfo {
  std::uint32_t id = 0;
  std::string title;
  /// The document shown, where the desktop can tell; empty otherwise.
  std::string document;
  double x = 0;
  double y = 0;
  double width = 0;
  double height = 0;
  bool minimized = false;
};

/// Top-level windows of running applications.
/// NOTE: may be called from background threads.
class WindowList {
 public:
  WindowList() = default;
  WindowList(const WindowList&) = delete;
  WindowList& operator=(const WindowList&) = delete;
  virtual ~WindowList() = default;

  /// The normal windows owned by the process, front to back; empty when it has none or the query
  /// failed.
  [[nodiscard]] virtual std::vector<WindowInfo> windowsOf(std::int32_t pid) = 0;
  /// Moves, resizes and (un)minimizes a window; false when the desktop refused.
  virtual bool setFrame(std::uint32_t id, double x, double y, double width, double height, bool minimized) = 0;
};

}  // namespace tarry::platform
