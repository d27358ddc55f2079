#pragma once

#include "platform/consent_view.h"

#include <QDialog>

#include <functional>

class QLabel;
class QPushButton;

namespace tarry::platform::qt {

/// The first-run consent window: a heading, the explanation, the privacy link, Disagree and
/// Agree (the default button: Return presses it). Closing it or Escape counts as Disagree.
class QtConsentWindow final : public QDialog, public ConsentView {
 public:
  QtConsentWindow();

  void setHandlers(std::function<void()> agree, std::function<void()> disagree) override;
  void present(const ConsentTexts& texts) override;
  void dismiss() override;

 protected:
  /// Escape and the window's close button end here (QDialog routes closing through it).
  void reject() override;

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
