#pragma once

#include <string>
#include <vector>

namespace tarry::platform {

/// A modal alert: a message, an informative line below it, and its buttons in order.
/// NOTE: the first button is the default one (Return presses it).
struct AlertSpec {
  std::string message;
  std::string informativeText;
  std::vector<std::string> buttons;
};

/// Modal alerts shown by the program.
class Alerts {
 public:
  Alerts() = default;
  Alerts(const Alerts&) = delete;
  Alerts& operator=(const Alerts&) = delete;
  virtual ~Alerts() = default;

  /// Shows the alert and waits for the user; returns the index of the clicked button, or −1 when
  /// the alert was dismissed without one.
  virtual int runModal(const AlertSpec& alert) = 0;
};

}  // namespace tarry::platform
