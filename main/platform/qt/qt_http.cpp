#include "platform/qt/qt_http.h"

#include "platform/qt/qt_convert.h"

#include <QByteArray>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPointer>
#include <QTimer>
#include <QUrl>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>

namespace tarry::platform::qt {

/// State shared with the networking thread.
struct QtHttp::Worker {
  /// Created on the networking thread on first use.
  QNetworkAccessManager* manager = nullptr;
  /// Set when the client is being destroyed: finished replies no longer report.
  std::atomic<bool> stopping{false};
  std::function<void(const std::string&)> note;
};

namespace {

QNetworkRequest toQRequest(const HttpRequest& request) {
  QNetworkRequest q(QUrl(toQString(request.url)));
  for (const auto& [name, value] : request.headers) {
    q.setRawHeader(QByteArray::fromStdString(name), QByteArray::fromStdString(value));
  }
  q.setAttribute(QNetworkRequest::CacheLoadControlAttribute,
                 request.cachePolicy == CachePolicy::ignoreLocalCache ? QNetworkRequest::AlwaysNetwork
                                                                      : QNetworkRequest::PreferNetwork);
  // NOTE: Qt's own transfer timeout restarts with every byte, so a server that sends one now and
  // then would hold the request for ever; the deadline is a timer of the whole exchange (send).
  return q;
}

/// Milliseconds of a deadline in seconds, at least 1 (Qt reads 0 as "no timeout").
int deadlineMs(double seconds) {
  const double ms = std::isfinite(seconds) ? std::max(1.0, seconds * 1000) : 1.0;
  return static_cast<int>(std::min(ms, 2'000'000'000.0));
}

/// Why a request was cut off by this client; empty while it was not.
struct Cutoff {
  std::string why;
};

HttpResponse toResponse(QNetworkReply& reply, const Cutoff& cutoff) {
  HttpResponse response;
  if (!cutoff.why.empty()) {
    response.error = cutoff.why;
    return response;
  }
  const QVariant status = reply.attribute(QNetworkRequest::HttpStatusCodeAttribute);
  if (status.isValid()) {
    // Any status, 404 included, is an answer of the server, not a transport error.
    response.received = true;
    response.status = status.toInt();
    const QByteArray body = reply.readAll();
    response.body.assign(body.constData(), static_cast<std::size_t>(body.size()));
  } else {
    response.error = toStdString(reply.errorString());
    if (response.error.empty()) response.error = "no response";
  }
  return response;
}

}  // namespace

QtHttp::QtHttp(std::function<void(const std::string&)> note) : worker_(std::make_shared<Worker>()) {
  worker_->note = std::move(note);
  thread_.setObjectName(QStringLiteral("tarry-network"));
  context_ = new QObject;
  context_->moveToThread(&thread_);
  thread_.start();
}

QtHttp::~QtHttp() {
  worker_->stopping.store(true);
  // The manager and its replies belong to the networking thread and must be deleted there.
  // NOTE: blocking, because a quit event loop drops the events still queued for it.
  QObject* context = context_;
  QMetaObject::invokeMethod(
      context,
      [context] {
        for (QNetworkReply* reply : context->findChildren<QNetworkReply*>()) reply->abort();
        delete context;
      },
      Qt::BlockingQueuedConnection);
  thread_.quit();
  thread_.wait();
}

void QtHttp::get(const HttpRequest& request, Completion done) { send(request, false, std::move(done)); }

void QtHttp::post(const HttpRequest& request, Completion done) { send(request, true, std::move(done)); }

void QtHttp::send(const HttpRequest& request, bool isPost, Completion done) {
  std::shared_ptr<Worker> worker = worker_;
  QObject* context = context_;
  QMetaObject::invokeMethod(
      context,
      [worker, context, request, isPost, done = std::move(done)]() mutable {
        if (worker->stopping.load()) return;
        if (worker->manager == nullptr) {
          worker->manager = new QNetworkAccessManager(context);
          // NOTE: replies are parented to the manager, the manager to the context; the context's
          // deletion on this thread takes them all.
        }
        QNetworkReply* reply =
            isPost ? worker->manager->post(toQRequest(request), QByteArray::fromStdString(request.body))
                   : worker->manager->get(toQRequest(request));
        auto cutoff = std::make_shared<Cutoff>();
        const std::uint64_t maxBytes = request.maxBytes;
        const double timeoutSec = request.timeoutSec;
        const auto cut = [reply, cutoff](std::string why) {
          if (!cutoff->why.empty()) return;
          cutoff->why = std::move(why);
          reply->abort();
        };
        QTimer::singleShot(deadlineMs(timeoutSec), reply, [cut, timeoutSec] {
          char text[64];
          std::snprintf(text, sizeof text, "no complete answer within %g s", timeoutSec);
          cut(text);
        });
        const auto tooLarge = [cut, maxBytes] {
          cut("the answer is larger than the " + std::to_string(maxBytes) + " bytes allowed");
        };
        QObject::connect(reply, &QNetworkReply::metaDataChanged, reply, [reply, maxBytes, tooLarge] {
          const QVariant length = reply->header(QNetworkRequest::ContentLengthHeader);
          if (length.isValid() && length.toULongLong() > maxBytes) tooLarge();
        });
        // The body is buffered by the reply until it has finished; what is there is checked as it
        // comes, so a server that announces nothing cannot fill the memory either.
        QObject::connect(reply, &QNetworkReply::readyRead, reply, [reply, maxBytes, tooLarge] {
          if (static_cast<std::uint64_t>(reply->bytesAvailable()) > maxBytes) tooLarge();
        });
        QObject::connect(reply, &QNetworkReply::finished, reply,
                         [worker, reply, cutoff, url = request.url, isPost, done = std::move(done)] {
                           reply->deleteLater();
                           if (worker->stopping.load()) return;
                           if (!cutoff->why.empty() && worker->note)
                             worker->note(std::string(isPost ? "POST " : "GET ") + url + ": " + cutoff->why);
                           if (done) done(toResponse(*reply, *cutoff));
                         });
      },
      Qt::QueuedConnection);
}

}  // namespace tarry::platform::qt
