#include "platform/qt/qt_alerts.h"

#include "platform/qt/qt_convert.h"

#include <QMessageBox>
#include <QPixmap>
#include <QPushButton>

#include <vector>

namespace tarry::platform::qt {

int QtAlerts::runModal(const AlertSpec& alert) {
  QMessageBox box;
  box.setWindowTitle(QStringLiteral("Tarry"));
  box.setText(toQString(alert.message));
  box.setInformativeText(toQString(alert.informativeText));
  constexpr int kIconSize = 64;
  const QImage icon = toQImage(Icon{"tarry", 0, 0, nullptr}, kIconSize);
  if (!icon.isNull()) box.setIconPixmap(QPixmap::fromImage(icon));

  std::vector<QAbstractButton*> buttons;
  buttons.reserve(alert.buttons.size());
  for (std::size_t i = 0; i < alert.buttons.size(); ++i) {
    // One role for all keeps the buttons in the order given on every desktop's button layout.
    QPushButton* button = box.addButton(toQString(alert.buttons[i]), QMessageBox::ActionRole);
    if (i == 0) box.setDefaultButton(button);
    if (alert.buttons[i] == "Cancel") box.setEscapeButton(button);
    buttons.push_back(button);
  }
  box.exec();
  const QAbstractButton* clicked = box.clickedButton();
  for (std::size_t i = 0; i < buttons.size(); ++i) {
    if (buttons[i] == clicked) return static_cast<int>(i);
  }
  return -1;
}

}  // namespace tarry::platform::qt
