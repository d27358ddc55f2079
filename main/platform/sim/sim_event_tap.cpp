#include "platform/sim/sim_event_tap.h"

#include <cstdio>
#include <string>

namespace tarry::platform::sim {

class SimEventTap::Handle final : public TapHandle {
 public:
  explicit Handle(std::shared_ptr<State> state) : state_(std::move(state)) {}
  ~Handle() override {
    state_->callback = nullptr;
    state_->enabled = false;
  }
  void enable() override {
    state_->enabled = true;
    if (state_->enableCount) ++*state_->enableCount;
  }

 private:
  std::shared_ptr<State> state_;
};

std::unique_ptr<TapHandle> SimEventTap::create(Callback callback) {
  ++createCount;
  if (!trusted) {
    lastError_ = "not trusted";
    return nullptr;
  }
  if (failCreate) {
    lastError_ = "tap creation refused";
    return nullptr;
  }
  lastError_.clear();
  state_->callback = std::move(callback);
  state_->enabled = false;
  state_->enableCount = &enableCount;
  return std::make_unique<Handle>(state_);
}

TapVerdict SimEventTap::inject(const KeyEvent& event) {
  if (!state_->callback) return TapVerdict::pass;
  const bool disabling =
      event.type == EventType::tapDisabledByTimeout || event.type == EventType::tapDisabledByUserInput;
  if (disabling) {
    state_->enabled = false;
    return state_->callback(event);
  }
  if (!state_->enabled) return TapVerdict::pass;
  return state_->callback(event);
}

void SimEventTap::post(const KeyEvent& event) {
  if (journal_) {
    std::string line = "post ";
    line += event.type == EventType::keyDown ? "down" : event.type == EventType::keyUp ? "up" : "other";
    line += " code=" + std::to_string(event.keyCode);
    char flags[32];
    std::snprintf(flags, sizeof flags, " flags=0x%llx", static_cast<unsigned long long>(event.flags));
    line += flags;
    line += " marker=" + std::to_string(event.userData);
    journal_->add(std::move(line));
  }
  const TapVerdict verdict = inject(event);
  posted.emplace_back(event, verdict);
}

}  // namespace tarry::platform::sim
