#include <QApplication>

#include <gtest/gtest.h>

int main(int argc, char** argv) {
  // Also when run by hand or listed by ctest, which does not pass the tests' environment.
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  QApplication application(argc, argv);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
