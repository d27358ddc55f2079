#pragma once

#include "platform/http.h"

#include <QThread>

#include <functional>
#include <memory>
#include <string>

class QObject;

namespace tarry::platform::qt {

/// HTTP over QNetworkAccessManager on a networking thread of its own, so that requests and their
/// completions never wait on the main thread (or block it).
/// NOTE: completions run on the networking thread. Requests still in flight when the client is
/// destroyed are aborted and their completions never run.
class QtHttp final : public Http {
 public:
  /// `note` hears one line for each request cut off by its deadline or size limit (on the
  /// networking thread); other failures are the callers' to report.
  explicit QtHttp(std::function<void(const std::string&)> note = {});
  ~QtHttp() override;

  void get(const HttpRequest& request, Completion done) override;
  void post(const HttpRequest& request, Completion done) override;

 private:
  struct Worker;
  void send(const HttpRequest& request, bool isPost, Completion done);

  QThread thread_;
  /// Lives on `thread_`; owns the access manager and the replies.
  QObject* context_ = nullptr;
  std::shared_ptr<Worker> worker_;
};

}  // namespace tarry::platform::qt
