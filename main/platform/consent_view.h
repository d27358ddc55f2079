#pragma once

#include <functional>
#include <string>

namespace tarry::platform {

/// What the first-run consent window shows; every word comes from the logic.
struct ConsentTexts {
  std::string title;
  std::string heading;
  std::string body;
  /// The privacy page's address; empty hides the link.
  std::string privacyURL;
  std::string privacyLinkText;
  std::string agreeButton;
  std::string disagreeButton;
};

/// The first-run consent window.
class ConsentView {
 public:
  ConsentView() = default;
  ConsentView(const ConsentView&) = delete;
  ConsentView& operator=(const ConsentView&) = delete;
  virtual ~ConsentView() = default;

  /// Called once: `agree` for the agree button, `disagree` for the other one or for closing the
  /// window without a choice. Both run on the main thread.
  virtual void setHandlers(std::function<void()> agree, std::function<void()> disagree) = 0;
  /// Shows the window with these texts, centred on the screen, in front and focused.
  virtual void present(const ConsentTexts& texts) = 0;
  /// Hides the window without calling a handler.
  virtual void dismiss() = 0;
};

}  // namespace tarry::platform
