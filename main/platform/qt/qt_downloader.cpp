#include "platform/qt/qt_downloader.h"

#include "platform/qt/qt_convert.h"

#include <QFile>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPointer>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QTimer>
#include <QUrl>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <memory>
#include <mutex>

namespace tarry::platform::qt {
namespace {

/// Less than this much received in one stall interval ends a download.
constexpr std::uint64_t kStallBytes = 4096;

/// One transfer, living on the networking thread.
class Transfer final : public Download, public std::enable_shared_from_this<Transfer> {
 public:
  void cancel() override {
    cancelled.store(true);
    // The reply is read on the networking thread: the request may not have been sent yet, and
    // then it is aborted as soon as it is (see `cancelled` there).
    QMetaObject::invokeMethod(context, [self = weak_from_this()] {
      if (const auto transfer = self.lock(); transfer && transfer->reply) transfer->reply->abort();
    });
  }

  QObject* context = nullptr;
  QPointer<QNetworkReply> reply;
  std::atomic<bool> cancelled{false};
};

}  // namespace

void trustCertificatesFromEnvironment() {
  const QString file = qEnvironmentVariable("SSL_CERT_FILE");
  if (file.isEmpty()) return;
  const QList<QSslCertificate> extra = QSslCertificate::fromPath(file, QSsl::Pem);
  if (extra.isEmpty()) return;
  QSslConfiguration config = QSslConfiguration::defaultConfiguration();
  config.addCaCertificates(extra);
  QSslConfiguration::setDefaultConfiguration(config);
}

QtDownloader::QtDownloader() {
  thread_.setObjectName(QStringLiteral("tarry-download"));
  context_ = new QObject;
  context_->moveToThread(&thread_);
  thread_.start();
}

QtDownloader::~QtDownloader() {
  QObject* context = context_;
  QMetaObject::invokeMethod(
      context,
      [context] {
        for (QNetworkReply* reply : context->findChildren<QNetworkReply*>()) {
          reply->disconnect();
          reply->abort();
        }
        delete context;
      },
      Qt::BlockingQueuedConnection);
  thread_.quit();
  thread_.wait();
}

std::shared_ptr<Download> QtDownloader::download(const std::string& url, const std::string& path,
                                                 std::uint64_t maxBytes, double timeoutSec, Progress progress,
                                                 Done done) {
  auto transfer = std::make_shared<Transfer>();
  transfer->context = context_;
  QObject* context = context_;
  QMetaObject::invokeMethod(context, [=, progress = std::move(progress), done = std::move(done)]() mutable {
    const QUrl qurl(toQString(url));
    if (qurl.scheme() != QStringLiteral("https")) {
      done({false, "only https downloads are allowed", false, false, 0});
      return;
    }
    auto file = std::make_shared<QFile>(toQString(path));
    if (!file->open(QIODevice::WriteOnly | QIODevice::Truncate)) {
      done({false, "cannot write " + path + ": " + toStdString(file->errorString()), false, false, 0});
      return;
    }
    auto* manager = context->findChild<QNetworkAccessManager*>();
    if (manager == nullptr) manager = new QNetworkAccessManager(context);
    QNetworkRequest request(qurl);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::NoLessSafeRedirectPolicy);
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute, QNetworkRequest::AlwaysNetwork);
    QNetworkReply* reply = manager->get(request);
    reply->setParent(context);
    transfer->reply = reply;
    if (transfer->cancelled.load()) reply->abort();

    struct State {
      std::uint64_t received = 0;
      std::uint64_t receivedAtLastCheck = 0;
      bool tooLarge = false;
      bool stalled = false;
      std::string writeError;
    };
    auto state = std::make_shared<State>();
    const auto stopWith = [reply](const std::shared_ptr<State>&) { reply->abort(); };
    // The stall deadline: every `timeoutSec` the download must have moved on by a few kilobytes.
    // NOTE: Qt's transfer timeout restarts with every byte, so a server that sends one now and
    // then would keep the download (and the update) waiting for ever.
    const double checkMs = std::isfinite(timeoutSec) ? std::max(1.0, timeoutSec * 1000) : 1.0;
    auto* stallCheck = new QTimer(reply);
    stallCheck->setInterval(static_cast<int>(std::min(checkMs, 2'000'000'000.0)));
    QObject::connect(stallCheck, &QTimer::timeout, reply, [state, stopWith] {
      if (state->received - state->receivedAtLastCheck < kStallBytes) {
        state->stalled = true;
        return stopWith(state);
      }
      state->receivedAtLastCheck = state->received;
    });
    stallCheck->start();
    QObject::connect(reply, &QNetworkReply::metaDataChanged, reply, [reply, state, maxBytes, stopWith] {
      const QVariant length = reply->header(QNetworkRequest::ContentLengthHeader);
      if (length.isValid() && length.toULongLong() > maxBytes) {
        state->tooLarge = true;
        stopWith(state);
      }
    });
    QObject::connect(reply, &QNetworkReply::readyRead, reply,
                     [reply, file, state, maxBytes, progress, stopWith] {
                       const QByteArray chunk = reply->readAll();
                       state->received += static_cast<std::uint64_t>(chunk.size());
                       if (state->received > maxBytes) {
                         state->tooLarge = true;
                         return stopWith(state);
                       }
                       if (file->write(chunk) != chunk.size()) {
                         state->writeError = toStdString(file->errorString());
                         return stopWith(state);
                       }
                       std::optional<std::uint64_t> total;
                       const QVariant length = reply->header(QNetworkRequest::ContentLengthHeader);
                       if (length.isValid()) total = length.toULongLong();
                       if (progress) progress(state->received, total);
                     });
    QObject::connect(
        reply, &QNetworkReply::finished, reply,
        [reply, file, state, transfer, done, timeoutSec, path = toQString(path)] {
          reply->deleteLater();
          DownloadResult result;
          result.bytes = state->received;
          const bool ok = reply->error() == QNetworkReply::NoError && state->writeError.empty() &&
                          !state->tooLarge && !transfer->cancelled.load();
          const bool flushed = file->flush();
          file->close();
          // A redirect that ended anywhere but https is a failure too.
          const bool secure = reply->url().scheme() == QStringLiteral("https");
          if (ok && flushed && secure) {
            result.ok = true;
          } else {
            QFile::remove(path);
            result.cancelled = transfer->cancelled.load();
            result.tooLarge = state->tooLarge;
            if (!state->writeError.empty()) {
              result.error = "cannot write the file: " + state->writeError;
            } else if (state->stalled) {
              char text[96];
              std::snprintf(text, sizeof text, "the download stalled (less than %llu bytes in %g s)",
                            static_cast<unsigned long long>(kStallBytes), timeoutSec);
              result.error = text;
            } else if (!secure) {
              result.error = "the download was redirected away from https";
            } else {
              const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
              result.error = status.isValid() && status.toInt() >= 400
                                 ? "HTTP " + std::to_string(status.toInt())
                                 : toStdString(reply->errorString());
            }
          }
          if (done) done(result);
        });
  });
  return transfer;
}

}  // namespace tarry::platform::qt
