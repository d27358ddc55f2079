#pragma once

#include "platform/main_loop.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace tarry::platform::kde {

/// One normal window as KWin describes it.
struct KWinWindow {
  /// KWin's id of the window (a UUID) and the number this program gives it.
  std::string uuid;
  std::uint32_t id = 0;
  std::int32_t pid = 0;
  std::string resourceClass;
  /// The desktop-file name the window's app gave (a Wayland app_id); may be empty.
  std::string desktopFile;
  std::string caption;
  double x = 0;
  double y = 0;
  double width = 0;
  double height = 0;
  bool minimized = false;
};

/// The windows as the script last reported them.
struct KWinWindows {
  /// The active window's UUID and process; empty and 0 when no window is active.
  std::string active;
  std::int32_t activePid = 0;
  /// Front to back.
  std::vector<KWinWindow> windows;
  /// The active window as described on its own (a dialog is not among `windows`).
  std::optional<KWinWindow> activeAlone;

  [[nodiscard]] const KWinWindow* activeWindow() const;
};

/// Reads a report of the script (JSON); numbers for new UUIDs come from `ids`, which keeps them
/// for the next report. Nothing when the text is not a report.
[[nodiscard]] std::optional<KWinWindows> parseKWinReport(const std::string& json,
                                                         std::map<std::string, std::uint32_t>& ids);

/// The window helper that runs inside KWin (`tarry-kwin.js`), loaded over KWin's scripting D-Bus
/// interface and talking back to this program's object `/KWin` on the session bus name
/// `org.tarry.Tarry.KWin`: it reports the windows whenever they change and asks for requests
/// (close, move and size, minimize) with a call this side answers once it has one. Reports and
/// requests never wait for the main thread; every function may be called from any thread.
class KWinScript final {
 public:
  /// Loads the script (unloading an earlier copy of it first); nothing when KWin or the bus
  /// refuses (`error` says why). Main thread (its QApplication must exist).
  [[nodiscard]] static std::unique_ptr<KWinScript> open(MainLoop& loop, const std::string& scriptPath,
                                                        std::string& error);
  ~KWinScript();
  KWinScript(const KWinScript&) = delete;
  KWinScript& operator=(const KWinScript&) = delete;

  /// True once the script has reported.
  [[nodiscard]] bool reported() const;
  [[nodiscard]] KWinWindows windows() const;
  void closeWindow(std::uint32_t id);
  void closeWindowsOf(std::int32_t pid);
  /// False when no such window is known.
  bool setFrame(std::uint32_t id, double x, double y, double width, double height, bool minimized);
  /// Called, on whichever thread takes the report, with the process of each newly active window.
  void setOnActivated(std::function<void(std::int32_t pid)> onActivated);

  class Endpoint;

 private:
  KWinScript() = default;
  void request(const std::string& json);

  std::unique_ptr<Endpoint> endpoint_;
  Scheduled idle_;
};

}  // namespace tarry::platform::kde
