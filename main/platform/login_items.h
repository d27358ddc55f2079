#pragma once

#include <string>

namespace tarry::platform {

/// Launching this program at login.
class LoginItems {
 public:
  LoginItems() = default;
  LoginItems(const LoginItems&) = delete;
  LoginItems& operator=(const LoginItems&) = delete;
  virtual ~LoginItems() = default;

  /// True when the program is registered to start at login.
  [[nodiscard]] virtual bool enabled() = 0;
  /// Registers the program; false with `error` set on failure.
  virtual bool registerItem(std::string& error) = 0;
  /// Unregisters the program; false with `error` set on failure.
  virtual bool unregisterItem(std::string& error) = 0;
};

}  // namespace tarry::platform
