#pragma once

#include "platform/alerts.h"

namespace tarry::platform::qt {

/// Alerts as application-modal `QMessageBox`es titled "Tarry", with the program's icon.
/// The first button is the default (Return); a button titled "Cancel" also answers Escape, as
/// users expect from a desktop alert; closing the alert otherwise answers −1.
class QtAlerts final : public Alerts {
 public:
  int runModal(const AlertSpec& alert) override;
};

}  // namespace tarry::platform::qt
