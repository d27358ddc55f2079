#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace tarry::platform {

struct DownloadResult {
  bool ok = false;
  /// Why it failed: a transport error, an HTTP status, an insecure redirect; empty on success.
  std::string error;
  /// True when the download was stopped for being larger than allowed.
  bool tooLarge = false;
  /// True when it was cancelled.
  bool cancelled = false;
  std::uint64_t bytes = 0;
};

/// A download under way; destroying it does not cancel it.
class Download {
 public:
  Download() = default;
  Download(const Download&) = delete;
  Download& operator=(const Download&) = delete;
  virtual ~Download() = default;

  /// Stops the download; its completion reports `cancelled`. Harmless once it finished.
  virtual void cancel() = 0;
};

/// Downloads of large files straight to disk.
class Downloader {
 public:
  /// Bytes received so far and the total when the server announced it.
  using Progress = std::function<void(std::uint64_t received, std::optional<std::uint64_t> total)>;
  using Done = std::function<void(const DownloadResult&)>;

  Downloader() = default;
  Downloader(const Downloader&) = delete;
  Downloader& operator=(const Downloader&) = delete;
  virtual ~Downloader() = default;

  /// Streams `url` (https only; a redirect to another scheme fails) into the file `path`,
  /// failing with `tooLarge` as soon as it is known to exceed `maxBytes`, and as stalled when a
  /// span of `timeoutSec` passes with less than a few kilobytes received. `progress` and `done`
  /// run on the networking thread; `done` runs once. A failed download leaves no file at `path`.
  [[nodiscard]] virtual std::shared_ptr<Download> download(const std::string& url, const std::string& path,
                                                           std::uint64_t maxBytes, double timeoutSec,
                                                           Progress progress, Done done) = 0;
};

}  // namespace tarry::platform
