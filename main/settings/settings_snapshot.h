#pragma once

#include "platform/login_items.h"
#include "settings/preferences.h"

#include <nlohmann/json.hpp>

#include <string>

namespace tarry::settings {

/// Facts about this run that the snapshot reports beside the stored settings.
struct SnapshotFacts {
  /// The input permission is granted (the event tap can be installed).
  bool accessibility = false;
  /// This process was started as a login item.
  bool loginLaunch = false;
  /// The version this copy was updated from; empty when none.
  std::string updatedFrom;
};

/// The current settings under their report names, each as its accessor reads it (default and clamp
/// applied), for the usage-event sender.
[[nodiscard]] nlohmann::json settingsSnapshot(const Preferences& prefs, platform::LoginItems& loginItems,
                                              const SnapshotFacts& facts);

}  // namespace tarry::settings
