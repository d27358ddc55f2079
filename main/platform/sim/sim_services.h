#pragma once

#include "platform/activity.h"
#include "platform/appearance.h"
#include "platform/login_items.h"
#include "platform/sim/journal.h"
#include "platform/sound.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tarry::platform::sim {

/// Records the sounds played.
class SimSound final : public Sound {
 public:
  explicit SimSound(Journal* journal = nullptr) : journal_(journal) {}
  void play(std::string_view name) override {
    played.emplace_back(name);
    if (journal_) journal_->add("sound " + std::string(name));
  }
  std::vector<std::string> played;

 private:
  Journal* journal_;
};

/// Counts activities begun and still open.
class SimActivity final : public Activity {
 public:
  [[nodiscard]] std::unique_ptr<ActivityToken> begin(std::string_view reason) override {
    reasons.emplace_back(reason);
    ++*open_;
    return std::make_unique<Token>(open_);
  }
  [[nodiscard]] int openCount() const { return *open_; }
  std::vector<std::string> reasons;

 private:
  class Token final : public ActivityToken {
   public:
    explicit Token(std::shared_ptr<int> open) : open_(std::move(open)) {}
    ~Token() override { --*open_; }

   private:
    std::shared_ptr<int> open_;
  };
  std::shared_ptr<int> open_ = std::make_shared<int>(0);
};

/// A login-item switch that can be told to fail.
class SimLoginItems final : public LoginItems {
 public:
  [[nodiscard]] bool enabled() override { return on; }
  bool registerItem(std::string& error) override { return change(true, error); }
  bool unregisterItem(std::string& error) override { return change(false, error); }

  bool on = false;
  /// When not empty, every change fails with this text.
  std::string failWith;
  int registerCalls = 0;
  int unregisterCalls = 0;

 private:
  bool change(bool value, std::string& error) {
    ++(value ? registerCalls : unregisterCalls);
    if (!failWith.empty()) {
      error = failWith;
      return false;
    }
    on = value;
    return true;
  }
};

/// Remembers the appearance last applied.
class SimAppearance final : public Appearance {
 public:
  void apply(AppearanceMode mode) override { applied = mode; }
  std::optional<AppearanceMode> applied;
};

}  // namespace tarry::platform::sim
