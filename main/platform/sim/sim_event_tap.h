#pragma once

#include "platform/event_tap.h"
#include "platform/sim/journal.h"

#include <memory>
#include <vector>

namespace tarry::platform::sim {

/// A tap fed by the test. Posted events are recorded and fed back through the tap, as the real
/// session would deliver them.
class SimEventTap final : public EventTap {
 public:
  explicit SimEventTap(Journal* journal = nullptr) : journal_(journal) {}

  [[nodiscard]] bool isTrusted() override { return trusted; }
  [[nodiscard]] std::unique_ptr<TapHandle> create(Callback callback) override;
  [[nodiscard]] std::string lastError() const override { return lastError_; }
  [[nodiscard]] bool listenAccessGranted() override { return listenGranted; }
  void requestListenAccess() override { ++listenRequests; }
  void post(const KeyEvent& event) override;
  [[nodiscard]] std::string problem() const override { return problemText; }

  /// Delivers an event from the user; returns what the tap decided (pass when no tap is enabled).
  /// A tap-disabled event disables the tap before it is delivered, as the system does.
  TapVerdict inject(const KeyEvent& event);

  [[nodiscard]] bool installed() const { return state_->callback != nullptr; }
  [[nodiscard]] bool enabled() const { return state_->enabled; }

  // Knobs and records for tests.
  bool trusted = true;
  /// What `problem` reports.
  std::string problemText;
  bool failCreate = false;
  bool listenGranted = true;
  int listenRequests = 0;
  int createCount = 0;
  int enableCount = 0;
  /// Every posted event with the verdict the tap gave it when fed back.
  std::vector<std::pair<KeyEvent, TapVerdict>> posted;

 private:
  struct State {
    Callback callback;
    bool enabled = false;
    int* enableCount = nullptr;
  };
  class Handle;

  Journal* journal_;
  std::string lastError_;
  std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace tarry::platform::sim
