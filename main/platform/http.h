#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace tarry::platform {

enum class CachePolicy {
  useProtocol,       // the ordinary HTTP caching rules
  ignoreLocalCache,  // always ask the server
};

struct HttpRequest {
  std::string url;
  std::vector<std::pair<std::string, std::string>> headers;
  CachePolicy cachePolicy = CachePolicy::useProtocol;
  /// The whole exchange, from sending to the last byte of the answer, must fit in this many
  /// seconds (a server that sends a byte now and then does not keep it alive).
  double timeoutSec = 10;
  /// The largest answer body accepted, in bytes; a larger one (announced or received) ends the
  /// request as a transport error without reading the rest.
  std::uint64_t maxBytes = 1'000'000;
  /// The body of a POST (sent with the Content-Type header given in `headers`); empty for a GET.
  std::string body;
};

struct HttpResponse {
  /// True when an HTTP response arrived (whatever its status).
  bool received = false;
  int status = 0;
  std::string body;
  /// Transport error text; empty when a response arrived.
  std::string error;
};

/// HTTP client.
class Http {
 public:
  using Completion = std::function<void(const HttpResponse&)>;

  Http() = default;
  Http(const Http&) = delete;
  Http& operator=(const Http&) = delete;
  virtual ~Http() = default;

  /// Sends a GET and returns at once; `done` runs once, on the networking thread (not the main
  /// thread), with the response or the error. A request that runs past its `timeoutSec` or whose
  /// answer exceeds `maxBytes` ends with an error (`received` false).
  virtual void get(const HttpRequest& request, Completion done) = 0;
  /// Sends a POST of `request.body` and returns at once; `done` as for `get`.
  virtual void post(const HttpRequest& request, Completion done) = 0;
};

}  // namespace tarry::platform
