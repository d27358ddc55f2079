#pragma once

#include <functional>
#include <string>
#include <vector>

namespace tarry::platform::kde {

/// KWin offers its fake input only to a program whose desktop file (in an applications folder,
/// known to the service cache) declares `X-KDE-Wayland-Interfaces=org_kde_kwin_fake_input` and
/// starts it by its absolute path. The installed launcher does; a copy run from elsewhere (a build
/// tree) writes an entry of its own.

/// True when the desktop-entry text starts `executable` and declares the fake input.
[[nodiscard]] bool declaresFakeInput(const std::string& entryText, const std::string& executable);
/// A hidden entry that declares the fake input for `executable`.
[[nodiscard]] std::string fakeInputEntryText(const std::string& executable);

/// Makes sure an entry in `applicationDirs` declares the fake input for `executable`; when none
/// does, writes one into `ownDir` (the user's applications folder) and calls `refreshCache`.
/// Returns what it did, for the log; empty when nothing was needed.
std::string ensureFakeInputEntry(const std::string& executable,
                                 const std::vector<std::string>& applicationDirs, const std::string& ownDir,
                                 const std::function<std::string()>& refreshCache);

/// Starts KDE's service-cache tool (kbuildsycoca6 or kbuildsycoca5) in the background; says which.
std::string refreshServiceCache();

}  // namespace tarry::platform::kde
