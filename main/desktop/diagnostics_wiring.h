#pragma once

#include "diagnostics/diagnostics.h"
#include "platform/linux/linux_crash_reports.h"

#include <memory>

namespace tarry::desktop {

/// The desktop program's crash recorder and log upload over the real system.
struct DesktopDiagnostics {
  DesktopDiagnostics(diagnostics::Log& log, platform::FileSystem& files, platform::DefaultsStore& store,
                     const settings::Tunables& tunables, const platform::SystemFacts& facts)
      : crashes(facts.processName), diagnostics(log, files, store, tunables, crashes, facts, TARRY_VERSION) {}

  platform::os::LinuxCrashReports crashes;
  diagnostics::Diagnostics diagnostics;
};

/// Builds them and runs `startLogging`: call it first, as soon as the log exists.
[[nodiscard]] std::unique_ptr<DesktopDiagnostics> startDesktopDiagnostics(diagnostics::Log& log,
                                                                          platform::FileSystem& files,
                                                                          platform::DefaultsStore& store,
                                                                          const settings::Tunables& tunables);

}  // namespace tarry::desktop
