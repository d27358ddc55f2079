#pragma once

#include "platform/consent_view.h"
#include "settings/preferences.h"

#include <functional>
#include <string>

namespace tarry::app {

/// The consent version the current texts ask for; `consentVersion` below it means "not given".
inline constexpr long long kConsentVersion = 1;

/// The first-run consent window's texts: what is collected, where it goes, and the privacy page
/// when a server is configured (`serverBase` empty: nothing is sent, no link).
[[nodiscard]] platform::ConsentTexts consentTexts(const std::string& serverBase);

/// The first-run consent gate. Agree stores the consent and runs `onAgree`; Disagree, or closing
/// the window without a choice, runs `onDisagree` (the program ends).
class ConsentController final {
 public:
  ConsentController(platform::ConsentView& view, settings::Preferences& prefs, std::string serverBase);
  ConsentController(const ConsentController&) = delete;
  ConsentController& operator=(const ConsentController&) = delete;

  /// True once the user has agreed to the current texts.
  [[nodiscard]] bool given() const;
  /// Shows (or raises) the window.
  void show();

  std::function<void()> onAgree;
  std::function<void()> onDisagree;

 private:
  void agree();
  void disagree();

  platform::ConsentView& view_;
  settings::Preferences& prefs_;
  std::string serverBase_;
  bool handlersSet_ = false;
};

}  // namespace tarry::app
