#pragma once

#include "platform/consent_view.h"

#include <QWidget>

#include <functional>

class QLabel;
class QPushButton;

namespace tarry::platform::qt {

/// The first-run consent window: a heading, the explanation, the privacy link, Disagree and
/// Agree. Closing it counts as Disagree.
class QtConsentWindow final : public QWidget, public ConsentView {
 public:
  QtConsentWindow();

  void setHandlers(std::function<void()> agree, std::function<void()> disagree) override;
  void present(const ConsentTexts& texts) override;
  void dismiss() override;

 protected:
  void closeEvent(QCloseEvent* event) override;

 private:
  std::function<void()> agree_;
  std::function<void()> disagree_;
  QLabel* heading_;
  QLabel* body_;
  QLabel* link_;
  QPushButton* disagreeButton_;
  QPushButton* agreeButton_;
  bool dismissing_ = false;
};

}  // namespace tarry::platform::qt
