#include "desktop/diagnostics_wiring.h"

namespace tarry::desktop {

std::unique_ptr<DesktopDiagnostics> startDesktopDiagnostics(diagnostics::Log& log,
                                                            platform::FileSystem& files,
                                                            platform::DefaultsStore& store,
                                                            const settings::Tunables& tunables) {
  auto made =
      std::make_unique<DesktopDiagnostics>(log, files, store, tunables, platform::os::readSystemFacts());
  made->diagnostics.startLogging();
  return made;
}

}  // namespace tarry::desktop
