#pragma once

#include "platform/progress_window.h"

#include <memory>

class QDialog;
class QLabel;
class QProgressBar;
class QPushButton;

namespace tarry::platform::qt {

/// A small "Tarry" window with a title line, a progress bar, a detail line and Cancel.
class QtProgressWindow final : public ProgressWindow {
 public:
  QtProgressWindow();
  ~QtProgressWindow() override;

  void show(const std::string& title, std::function<void()> cancel) override;
  void update(const std::string& text, double fraction) override;
  void setCancellable(bool cancellable) override;
  void close() override;

 private:
  std::unique_ptr<QDialog> dialog_;
  QLabel* title_ = nullptr;
  QLabel* detail_ = nullptr;
  QProgressBar* bar_ = nullptr;
  QPushButton* cancel_ = nullptr;
  std::function<void()> onCancel_;
};

}  // namespace tarry::platform::qt
