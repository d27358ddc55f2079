#pragma once

#include "platform/about_view.h"
#include "platform/alerts.h"
#include "platform/stats_view.h"

#include <QWidget>

class QLabel;

namespace tarry::platform::qt {

/// The About window: icon, name, version, a line on what Tarry does, the licence and the server.
class QtAboutWindow final : public QWidget, public AboutView {
  Q_OBJECT

 public:
  explicit QtAboutWindow(QWidget* parent = nullptr);
  void setTexts(const AboutTexts& texts) override;
  void present() override;

 private:
  QLabel* icon_ = nullptr;
  QLabel* name_ = nullptr;
  QLabel* version_ = nullptr;
  QLabel* description_ = nullptr;
  QLabel* licence_ = nullptr;
  QLabel* server_ = nullptr;
};

/// The clipboard of the desktop session.
class QtClipboard final : public Clipboard {
 public:
  void setText(const std::string& text) override;
};

}  // namespace tarry::platform::qt
