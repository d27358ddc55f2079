#include "app/about.h"

#include "guard/combo.h"

namespace tarry::app {

platform::AboutTexts aboutTexts(const std::string& serverURL) {
  platform::AboutTexts info;
  info.title = "About Tarry";
  info.name = "Tarry";
  info.version = std::string("Version ") + TARRY_VERSION;
  info.description = "Guards " + std::string(guard::keysText(guard::Shortcut::quit)) + ", " +
                     std::string(guard::keysText(guard::Shortcut::close)) + " and " +
                     std::string(guard::keysText(guard::Shortcut::logout)) +
                     ": hold the keys, or press them twice, to go through.";
  // NOTE: the same licence as the AppStream metainfo (LicenseRef-proprietary).
  info.licence = "Proprietary software; all rights reserved. Provided without any warranty.";
  if (!serverURL.empty()) info.server = "Server: " + serverURL;
  info.icon = "tarry";
  return info;
}

}  // namespace tarry::app
