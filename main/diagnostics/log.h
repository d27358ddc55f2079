#pragma once

#include "platform/defaults_store.h"
#include "platform/file_system.h"
#include "platform/main_loop.h"
#include "settings/tunables.h"

#include <string>

namespace tarry::diagnostics {

/// The diagnostic event log: one line per event in "events.log" inside the log directory.
/// NOTE: every file operation runs on the serial queue "app.log", so lines never interleave and the
/// caller never waits for the disk; every file error is swallowed. Queued writes use this object,
/// so destroying it waits for the queue to finish what it holds.
class Log final {
 public:
  Log(platform::MainLoop& loop, platform::FileSystem& files, platform::DefaultsStore& store,
      const settings::Tunables& tunables)
      : loop_(loop), files_(files), store_(store), tunables_(tunables) {}
  ~Log();
  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;

  /// Appends "<UTC date-time> <line>\n" to "events.log"; returns at once.
  void log(std::string line);

  /// Log queue only: the log directory, made anew when `logDir` is unset or does not exist.
  /// A new one is a private (0700) directory with a random 16-character name inside this
  /// program's state directory: the temporary directory is shared and emptied at boot.
  [[nodiscard]] std::string directory();

  /// The serial "app.log" queue that every file operation of the log runs on.
  [[nodiscard]] platform::SerialQueue& queue();

  /// 2026-11-14T21:18:42Z for a moment in seconds since 1970 (fractions dropped).
  [[nodiscard]] static std::string timestamp(double secondsSince1970);

 private:
  void write(const std::string& record);

  platform::MainLoop& loop_;
  platform::FileSystem& files_;
  platform::DefaultsStore& store_;
  const settings::Tunables& tunables_;
};

}  // namespace tarry::diagnostics
