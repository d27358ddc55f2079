#pragma once

#include "platform/about_view.h"

#include <string>

namespace tarry::app {

/// The About window's texts for this build; `serverURL` is the configured server ("" for none).
[[nodiscard]] platform::AboutTexts aboutTexts(const std::string& serverURL);

}  // namespace tarry::app
