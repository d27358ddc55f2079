#pragma once

#include "platform/downloader.h"

#include <QThread>

#include <memory>

class QObject;

namespace tarry::platform::qt {

/// Downloads over QNetworkAccessManager on a networking thread of its own, written to disk as
/// the bytes arrive.
/// NOTE: only https is fetched, and redirects are followed only to https (Qt's
/// NoLessSafeRedirectPolicy would still allow https → https on another host, which is fine: the
/// file is checked against the release's digest and signature anyway).
class QtDownloader final : public Downloader {
 public:
  QtDownloader();
  ~QtDownloader() override;

  [[nodiscard]] std::shared_ptr<Download> download(const std::string& url, const std::string& path,
                                                   std::uint64_t maxBytes, double timeoutSec,
                                                   Progress progress, Done done) override;

 private:
  QThread thread_;
  QObject* context_ = nullptr;
};

/// Adds the certificate authorities in the file named by SSL_CERT_FILE (the OpenSSL convention
/// for a private or company CA) to the ones Qt trusts, for every request made afterwards; Qt
/// itself reads only the system's certificate folders. Does nothing when it is not set.
void trustCertificatesFromEnvironment();

}  // namespace tarry::platform::qt
