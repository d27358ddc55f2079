#include "settings/server_url.h"

#include <cstdlib>

#ifndef TARRY_SERVER_URL
#define TARRY_SERVER_URL ""
#endif

namespace tarry::settings {

std::string serverBaseURL(const char* fromEnvironment) {
  std::string base =
      fromEnvironment != nullptr && *fromEnvironment != '\0' ? fromEnvironment : TARRY_SERVER_URL;
  // "http://host/" + "/api/…" would ask the server for "//api/…".
  while (!base.empty() && base.back() == '/') base.pop_back();
  return base;
}

std::string serverBaseURL() { return serverBaseURL(std::getenv("TARRY_SERVER_URL")); }

}  // namespace tarry::settings
