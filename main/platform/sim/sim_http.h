#pragma once

#include "platform/http.h"

#include <functional>
#include <utility>
#include <vector>

namespace tarry::platform::sim {

/// HTTP answered by the test: requests wait until `respond`, or a responder answers at once.
class SimHttp final : public Http {
 public:
  void get(const HttpRequest& request, Completion done) override;
  /// Like `get`; the request is recorded with its body.
  void post(const HttpRequest& request, Completion done) override { get(request, std::move(done)); }

  /// Answers the oldest waiting request; false when none waits.
  bool respond(const HttpResponse& response);
  /// When set, answers every request at once.
  std::function<HttpResponse(const HttpRequest&)> responder;
  /// Every request sent, in order.
  std::vector<HttpRequest> requests;

 private:
  std::vector<Completion> waiting_;
};

}  // namespace tarry::platform::sim
