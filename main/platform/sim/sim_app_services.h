#pragma once

#include "platform/consent_view.h"
#include "platform/digest.h"
#include "platform/network_status.h"

#include <functional>
#include <string>
#include <utility>

namespace tarry::platform::sim {

/// A consent window the test clicks.
class SimConsentView final : public ConsentView {
 public:
  void setHandlers(std::function<void()> agree, std::function<void()> disagree) override {
    agree_ = std::move(agree);
    disagree_ = std::move(disagree);
  }
  void present(const ConsentTexts& texts) override {
    shown = texts;
    visible = true;
    ++presentCount;
  }
  void dismiss() override { visible = false; }

  void clickAgree() { agree_(); }
  void clickDisagree() { disagree_(); }

  ConsentTexts shown;
  bool visible = false;
  int presentCount = 0;

 private:
  std::function<void()> agree_;
  std::function<void()> disagree_;
};

/// A network monitor the test feeds paths to.
class SimNetworkMonitor final : public NetworkMonitor {
 public:
  void start(Handler handler) override {
    ++startCount;
    handler_ = std::move(handler);
  }
  void report(const NetworkPath& path) {
    if (handler_) handler_(path);
  }
  int startCount = 0;

 private:
  Handler handler_;
};

/// A stand-in digest for tests that only need distinct, stable strings ("sha256(" + data + ")").
class SimDigest final : public Digest {
 public:
  [[nodiscard]] std::string sha256Hex(std::string_view data) const override {
    return "sha256(" + std::string(data) + ")";
  }
  [[nodiscard]] std::string sha256FileHex(const std::string&) const override { return {}; }
  [[nodiscard]] bool verifyEd25519File(const std::string&, std::string_view,
                                       std::string_view) const override {
    return false;
  }
};

}  // namespace tarry::platform::sim
