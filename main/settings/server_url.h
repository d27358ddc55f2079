#pragma once

#include <string>

namespace tarry::settings {

/// Base URL of the maker's server ("https://host[:port]", no trailing slash): `fromEnvironment`
/// when it is set and not empty, else the address compiled in (TARRY_SERVER_URL); empty when
/// neither names one.
[[nodiscard]] std::string serverBaseURL(const char* fromEnvironment);
/// The same, with the TARRY_SERVER_URL environment variable of this process.
[[nodiscard]] std::string serverBaseURL();

}  // namespace tarry::settings
