#pragma once

#include <memory>
#include <string_view>

namespace tarry::platform {

/// A user-initiated activity held open; dropping the token ends it.
class ActivityToken {
 public:
  ActivityToken() = default;
  ActivityToken(const ActivityToken&) = delete;
  ActivityToken& operator=(const ActivityToken&) = delete;
  virtual ~ActivityToken() = default;
};

/// Power management: keeps the system from idling while the user is in the middle of something.
class Activity {
 public:
  Activity() = default;
  Activity(const Activity&) = delete;
  Activity& operator=(const Activity&) = delete;
  virtual ~Activity() = default;

  /// Begins a user-initiated activity with the given reason; never null.
  [[nodiscard]] virtual std::unique_ptr<ActivityToken> begin(std::string_view reason) = 0;
};

}  // namespace tarry::platform
