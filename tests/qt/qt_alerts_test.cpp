#include "platform/qt/qt_alerts.h"

#include <QApplication>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QTest>
#include <QTimer>

#include <gtest/gtest.h>

#include <functional>

namespace tarry::platform::qt {
namespace {

/// Runs `act` on the alert once it is up, then returns what runModal answered.
int answer(const AlertSpec& shown, const std::function<void(QMessageBox&)>& act) {
  QTimer::singleShot(0, [act] {
    auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
    ASSERT_NE(box, nullptr) << "the alert is modal";
    act(*box);
  });
  QtAlerts alerts;
  return alerts.runModal(shown);
}

QStringList buttonTitles(const QMessageBox& box) {
  QStringList titles;
  for (const QAbstractButton* b : box.findChildren<QPushButton*>()) titles << b->text();
  return titles;
}

TEST(QtAlerts, ShowsTheTextsAndAnswersTheButtonIndex) {
  const AlertSpec shown{"Quit 2 apps?", "Firefox and Mousepad will quit.", {"Quit Them", "Cancel"}};
  QString text;
  QString informative;
  QStringList titles;
  const int clickedSecond = answer(shown, [&](QMessageBox& box) {
    text = box.text();
    informative = box.informativeText();
    titles = buttonTitles(box);
    box.buttons().at(1)->click();
  });
  EXPECT_EQ(text, "Quit 2 apps?");
  EXPECT_EQ(informative, "Firefox and Mousepad will quit.");
  EXPECT_TRUE(titles.contains("Quit Them") && titles.contains("Cancel")) << titles.join(",").toStdString();
  EXPECT_EQ(clickedSecond, 1);

  EXPECT_EQ(answer(shown, [](QMessageBox& box) { QTest::keyClick(&box, Qt::Key_Return); }), 0)
      << "Return presses the first button";
  EXPECT_EQ(answer(shown, [](QMessageBox& box) { QTest::keyClick(&box, Qt::Key_Escape); }), 1)
      << "Escape presses Cancel";
}

TEST(QtAlerts, ClosingWithoutAButtonAnswersMinusOne) {
  const AlertSpec shown{"Reset all settings?", "", {"Reset", "Keep"}};
  EXPECT_EQ(answer(shown, [](QMessageBox& box) { box.done(0); }), -1);
}

}  // namespace
}  // namespace tarry::platform::qt
