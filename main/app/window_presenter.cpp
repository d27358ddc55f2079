#include "app/window_presenter.h"

namespace tarry::app {

void WindowPresenter::bringForward(const std::function<void()>& show) {
  const double now = loop_.uptime();
  lastActivation = now;
  // The window manager may answer the activation with a focus change that reads as a reopen.
  if (ignoreUntil < now) ignoreUntil = now;
  if (show) show();
}

void WindowPresenter::windowClosed() {
  const double until = loop_.uptime() + tunables_.real(settings::T::dockSettleSec);
  if (until > ignoreUntil) ignoreUntil = until;
}

bool WindowPresenter::shouldOpenOnReopen(bool modalUp) const {
  if (modalUp) return false;
  const double now = loop_.uptime();
  if (now < ignoreUntil) return false;
  return now - lastActivation > tunables_.real(settings::T::reopenIgnoreSec);
}

}  // namespace tarry::app
