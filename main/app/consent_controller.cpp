#include "app/consent_controller.h"

#include "guard/combo.h"

#include <utility>

namespace tarry::app {

platform::ConsentTexts consentTexts(const std::string& serverBase) {
  platform::ConsentTexts t;
  t.title = "Welcome to Tarry";
  t.heading = "Tarry guards " + std::string(guard::keysText(guard::Shortcut::quit)) + ", " +
              std::string(guard::keysText(guard::Shortcut::close)) + " and " +
              std::string(guard::keysText(guard::Shortcut::logout)) +
              " so they no longer end your work by accident.";
  std::string body =
      "To learn how Tarry is used, it sends a few usage events: when it starts, a ping every few hours, "
      "when it quits, when you change or reset a setting, and when it lengthened a hold for unsaved "
      "work or a busy app. Each event carries your Tarry settings, a random number made for this "
      "installation, the Tarry version and the network kind, and Tarry counts the apps it guarded "
      "only as one-way hashes of their identifiers. It never sends app names, window titles, file "
      "names or anything you type.\n\n";
  if (serverBase.empty()) {
    body += "This copy of Tarry has no server configured, so nothing leaves this computer.";
  } else {
    body += "The events go to " + serverBase + ".";
    t.privacyURL = serverBase + "/privacy";
    t.privacyLinkText = "Privacy policy";
  }
  body += "\n\nAgree to start Tarry; Disagree quits it.";
  t.body = std::move(body);
  t.agreeButton = "Agree";
  t.disagreeButton = "Disagree";
  return t;
}

ConsentController::ConsentController(platform::ConsentView& view, settings::Preferences& prefs,
                                     std::string serverBase)
    : view_(view), prefs_(prefs), serverBase_(std::move(serverBase)) {}

bool ConsentController::given() const {
  const auto v = prefs_.store().get("consentVersion");
  return v && v->is_number() && v->get<double>() >= static_cast<double>(kConsentVersion);
}

void ConsentController::show() {
  if (!handlersSet_) {
    handlersSet_ = true;
    view_.setHandlers([this] { agree(); }, [this] { disagree(); });
  }
  view_.present(consentTexts(serverBase_));
}

void ConsentController::agree() {
  prefs_.setInteger("consentVersion", kConsentVersion);
  view_.dismiss();
  if (onAgree) onAgree();
}

void ConsentController::disagree() {
  view_.dismiss();
  if (onDisagree) onDisagree();
}

}  // namespace tarry::app
