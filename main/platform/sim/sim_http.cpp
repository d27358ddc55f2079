#include "platform/sim/sim_http.h"

namespace tarry::platform::sim {

void SimHttp::get(const HttpRequest& request, Completion done) {
  requests.push_back(request);
  if (responder) {
    done(responder(request));
  } else {
    waiting_.push_back(std::move(done));
  }
}

bool SimHttp::respond(const HttpResponse& response) {
  if (waiting_.empty()) return false;
  auto done = std::move(waiting_.front());
  waiting_.erase(waiting_.begin());
  done(response);
  return true;
}

}  // namespace tarry::platform::sim
