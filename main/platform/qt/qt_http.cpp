#include "platform/qt/qt_http.h"

#include "platform/qt/qt_convert.h"

#include <QByteArray>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPointer>
#include <QUrl>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <utility>

namespace tarry::platform::qt {

/// State shared with the networking thread.
struct QtHttp::Worker {
  /// Created on the networking thread on first use.
  QNetworkAccessManager* manager = nullptr;
  /// Set when the client is being destroyed: finished replies no longer report.
  std::atomic<bool> stopping{false};
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
  // Like the timeout of most HTTP stacks, Qt's transfer timeout counts the time without progress;
  // 0 would mean no timeout at all.
  const double ms = std::isfinite(request.timeoutSec) ? std::max(1.0, request.timeoutSec * 1000) : 1.0;
  q.setTransferTimeout(static_cast<int>(std::min(ms, 2'000'000'000.0)));
  return q;
}

HttpResponse toResponse(QNetworkReply& reply) {
  HttpResponse response;
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

QtHttp::QtHttp() : worker_(std::make_shared<Worker>()) {
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
        QObject::connect(reply, &QNetworkReply::finished, reply, [worker, reply, done = std::move(done)] {
          reply->deleteLater();
          if (worker->stopping.load()) return;
          if (done) done(toResponse(*reply));
        });
      },
      Qt::QueuedConnection);
}

}  // namespace tarry::platform::qt
