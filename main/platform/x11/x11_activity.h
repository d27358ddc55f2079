#pragma once

#include "platform/activity.h"

#include <xcb/xcb.h>

#include <memory>
#include <string_view>

namespace tarry::platform::x11 {

/// Keeps the X server's screen saver and idle blanking (DPMS included) off while an activity is
/// open, through the MIT-SCREEN-SAVER extension's Suspend request.
///
/// The server counts suspensions per client and drops them when the client disconnects, so a
/// crash never leaves the screen saver off. This class suspends once when the first token begins
/// and resumes when the last one ends.
/// NOTE: `connection` is shared, not owned, and must outlive this object; tokens may outlive it
/// (they then do nothing). Null, a broken connection or a server without MIT-SCREEN-SAVER 1.1:
/// tokens still work and do nothing.
class X11Activity final : public Activity {
 public:
  explicit X11Activity(xcb_connection_t* connection);
  ~X11Activity() override;
  X11Activity(const X11Activity&) = delete;
  X11Activity& operator=(const X11Activity&) = delete;

  /// X has no place for the reason; it is not sent anywhere.
  [[nodiscard]] std::unique_ptr<ActivityToken> begin(std::string_view reason) override;

  /// True when the server can suspend its screen saver for us.
  [[nodiscard]] bool canSuspend() const;

 private:
  struct State;
  class Token;
  std::shared_ptr<State> state_;
};

}  // namespace tarry::platform::x11
