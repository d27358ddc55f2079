#pragma once

#include "platform/defaults_store.h"

#include <string>
#include <string_view>

namespace tarry::settings {

/// What `tarry defaults write` should say about storing `value` under `key`: that the program
/// reads no such key, or that it reads the key as another type (the readers then use the default
/// or drop the entry); empty when the program reads the value as it stands.
/// NOTE: advice only; the store keeps whatever it is given.
[[nodiscard]] std::string defaultsWriteWarning(std::string_view key, const platform::Value& value);

}  // namespace tarry::settings
