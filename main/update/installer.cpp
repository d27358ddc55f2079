#include "update/installer.h"

#include <atomic>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <utility>

namespace tarry::update {
namespace {

std::string lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

bool endsWith(const std::string& text, std::string_view end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

/// A name safe for one path component: letters, digits and ".-_+", never "." or "..".
std::string safeName(std::string_view text, std::string_view fallback) {
  std::string out;
  for (const char c : text) {
    if (std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '-' || c == '_' || c == '+')
      out.push_back(c);
  }
  if (out.empty() || out.find_first_not_of('.') == std::string::npos) return std::string(fallback);
  return out;
}

/// The signature file holds the 64 signature bytes, raw or as 128 hex digits.
/// NOTE: raw bytes are taken as they are: a signature may well end in a byte that looks like a
/// newline or a space; only the hex form may carry a line end.
std::optional<std::string> signatureBytes(std::string body) {
  if (body.size() == 64) return body;
  while (!body.empty() && (body.back() == '\n' || body.back() == '\r' || body.back() == ' ')) body.pop_back();
  if (body.size() != 128) return std::nullopt;
  std::string out;
  for (std::size_t i = 0; i < body.size(); i += 2) {
    const auto nibble = [](char c) -> int {
      if (c >= '0' && c <= '9') return c - '0';
      if (c >= 'a' && c <= 'f') return c - 'a' + 10;
      if (c >= 'A' && c <= 'F') return c - 'A' + 10;
      return -1;
    };
    const int hi = nibble(body[i]);
    const int lo = nibble(body[i + 1]);
    if (hi < 0 || lo < 0) return std::nullopt;
    out.push_back(static_cast<char>(hi * 16 + lo));
  }
  return out;
}

bool isArchive(const std::string& path) {
  return endsWith(path, ".tar.gz") || endsWith(path, ".tgz") || endsWith(path, ".tar.xz");
}

constexpr const char* kNotInstalled = "The update was not installed";
/// A detached Ed25519 signature is 64 bytes (its text forms a little more); anything much larger is not one.
constexpr std::uint64_t kSignatureMaxBytes = 64 * 1024;

}  // namespace

/// One download-and-check of one release.
struct Installer::Attempt {
  Release release;
  bool visible = false;
  std::string path;
  Verified then;
  /// A prefetch's completion; cleared when an install takes the attempt over.
  std::function<void(bool ok)> prefetched;
  std::shared_ptr<platform::Download> download;
  bool cancelled = false;
  /// The last progress step posted to the main thread (per mille, or 256 KiB steps).
  std::atomic<std::int64_t> lastStep{-1};
};

std::string Installer::sizeText(std::uint64_t bytes) {
  char text[32];
  if (bytes < 1'000'000) {
    std::snprintf(text, sizeof text, "%llu KB", static_cast<unsigned long long>((bytes + 999) / 1000));
  } else {
    std::snprintf(text, sizeof text, "%.1f MB", static_cast<double>(bytes) / 1e6);
  }
  return text;
}

std::string Installer::downloadPath(const Release& release) const {
  std::string_view url = release.url;
  url = url.substr(0, url.find_first_of("?#"));
  const auto slash = url.rfind('/');
  const std::string name =
      safeName(slash == std::string_view::npos ? url : url.substr(slash + 1), "tarry-update");
  return deps_.files.stateDirectory() + "/updates/" + safeName(release.version, "unknown") + "/" + name;
}

void Installer::offMain(std::function<std::string()> work, std::function<void(const std::string&)> then) {
  std::weak_ptr<Installer*> weak = self_;
  platform::MainLoop& loop = deps_.loop;
  loop.background([weak, &loop, work = std::move(work), then = std::move(then)] {
    std::string result = work();
    loop.dispatchMain([weak, then, result = std::move(result)] {
      if (weak.lock()) then(result);
    });
  });
}

void Installer::install(const Release& release) {
  if (busy_ && current_) {
    if (current_->visible) return;  // already installing; its window is up
    if (current_->release == release) {
      // The prefetch of this release becomes the install.
      current_->visible = true;
      current_->prefetched = nullptr;
      current_->then = [this, release](const std::string& path) { installVerified(release, path); };
      std::weak_ptr<Attempt> weak = current_;
      deps_.progress.show("Downloading Tarry " + release.version, [weak] {
        if (const auto attempt = weak.lock(); attempt && attempt->download) attempt->download->cancel();
      });
      deps_.progress.update("Downloading…", -1);
      return;
    }
    // A prefetch of an older offer is dropped.
    if (current_->download) current_->download->cancel();
    current_.reset();
  }
  fetchVerified(release, true, [this, release](const std::string& path) { installVerified(release, path); });
}

void Installer::prefetch(const Release& release, std::function<void(bool ok)> done) {
  if (busy_ && current_) {
    if (current_->visible) {
      deps_.log("update " + release.version + ": no prefetch while an install runs");
      if (done) done(false);
      return;
    }
    if (current_->release == release) {
      // Already on its way: report to both.
      auto first = std::move(current_->prefetched);
      current_->prefetched = [first = std::move(first), done = std::move(done)](bool ok) {
        if (first) first(ok);
        if (done) done(ok);
      };
      return;
    }
    // A prefetch of an older release is dropped.
    if (current_->download) current_->download->cancel();
    current_.reset();
  }
  fetchVerified(
      release, false,
      [this](const std::string&) {
        busy_ = false;
        if (current_ && current_->prefetched) std::exchange(current_->prefetched, nullptr)(true);
      },
      std::move(done));
}

void Installer::fetchVerified(const Release& release, bool visible, Verified then,
                              std::function<void(bool ok)> prefetched) {
  auto attempt = std::make_shared<Attempt>();
  attempt->release = release;
  attempt->visible = visible;
  attempt->then = std::move(then);
  attempt->prefetched = std::move(prefetched);
  attempt->path = downloadPath(release);
  current_ = attempt;
  busy_ = true;

  if (!isHttpsURL(release.url))
    return fail(attempt, "The download address is not secure (it must use https).");
  if (deps_.publicKey.size() != 32)
    return fail(attempt, "This copy of Tarry has no key to check updates with.");
  if (const auto it = verified_.find(release.version);
      it != verified_.end() && deps_.files.exists(it->second)) {
    deps_.log("update " + release.version + ": using the verified download");
    attempt->then(it->second);
    return;
  }
  const std::string dir = attempt->path.substr(0, attempt->path.rfind('/'));
  if (!deps_.files.createDirectories(dir))
    return fail(attempt, "The download folder " + dir + " could not be made.");
  (void)deps_.files.restrictToOwner(dir);
  // A file left by an earlier run is checked again rather than fetched again.
  if (deps_.files.exists(attempt->path)) {
    deps_.log("update " + release.version + ": checking an earlier download");
    if (visible) {
      deps_.progress.show("Checking Tarry " + release.version, [] {});
      deps_.progress.setCancellable(false);
      deps_.progress.update("Checking the download…", -1);
    }
    return verify(attempt);
  }

  const double maxMB = deps_.tunables.real(settings::T::updateMaxDownloadMB);
  const auto maxBytes = static_cast<std::uint64_t>(std::llround(maxMB * 1e6));
  std::weak_ptr<Attempt> weakAttempt = attempt;
  if (visible) {
    deps_.progress.show("Downloading Tarry " + release.version, [weakAttempt] {
      if (const auto a = weakAttempt.lock(); a && a->download) a->download->cancel();
    });
    deps_.progress.setCancellable(true);
    deps_.progress.update("Connecting…", -1);
  }
  deps_.log("update " + release.version + ": downloading " + release.url);
  std::weak_ptr<Installer*> weak = self_;
  platform::MainLoop& loop = deps_.loop;
  attempt->download = deps_.downloader.download(
      release.url, attempt->path, maxBytes, deps_.tunables.real(settings::T::networkTimeoutSec),
      [weak, weakAttempt, &loop](std::uint64_t received, std::optional<std::uint64_t> total) {
        const auto a = weakAttempt.lock();
        if (!a) return;
        // Networking thread: post only visible steps (a tenth of a percent, or 256 KiB).
        const std::int64_t step = total && *total > 0 ? static_cast<std::int64_t>(received * 1000 / *total)
                                                      : static_cast<std::int64_t>(received >> 18);
        if (a->lastStep.exchange(step) == step) return;
        loop.dispatchMain([weak, weakAttempt, received, total] {
          const auto self = weak.lock();
          const auto attempt = weakAttempt.lock();
          if (!self || !attempt || !attempt->visible || attempt->cancelled) return;
          std::string text = sizeText(received);
          double fraction = -1;
          if (total && *total > 0) {
            fraction = std::min(1.0, static_cast<double>(received) / static_cast<double>(*total));
            text +=
                " of " + sizeText(*total) + " (" + std::to_string(static_cast<int>(fraction * 100)) + " %)";
          }
          (*self)->deps_.progress.update(text, fraction);
        });
      },
      [weak, weakAttempt, &loop, maxMB](const platform::DownloadResult& result) {
        loop.dispatchMain([weak, weakAttempt, result, maxMB] {
          const auto self = weak.lock();
          const auto attempt = weakAttempt.lock();
          if (!self || !attempt || (*self)->current_ != attempt) return;
          Installer& installer = **self;
          if (result.cancelled) {
            attempt->cancelled = true;
            (void)installer.deps_.files.remove(attempt->path);
            installer.deps_.log("update " + attempt->release.version + ": download cancelled");
            installer.deps_.progress.close();
            installer.busy_ = false;
            return;
          }
          if (result.tooLarge) {
            char limit[32];
            std::snprintf(limit, sizeof limit, "%g", maxMB);
            return installer.fail(attempt,
                                  "The download is larger than the " + std::string(limit) + " MB allowed.");
          }
          if (!result.ok) return installer.fail(attempt, "The download failed: " + result.error);
          installer.verify(attempt);
        });
      });
}

void Installer::verify(const std::shared_ptr<Attempt>& attempt) {
  if (attempt->visible) {
    deps_.progress.setCancellable(false);
    deps_.progress.update("Checking the download…", -1);
  }
  const std::string expected = lower(attempt->release.sha256);
  const platform::Digest& digest = deps_.digest;
  const std::string path = attempt->path;
  offMain([&digest, path, expected] { return digest.sha256FileHex(path) == expected ? "" : "mismatch"; },
          [this, attempt](const std::string& result) {
            if (current_ != attempt) return;
            if (!result.empty()) {
              return fail(attempt,
                          "The downloaded file is damaged: its SHA-256 checksum does not match the release.");
            }
            checkSignature(attempt);
          });
}

void Installer::checkSignature(const std::shared_ptr<Attempt>& attempt) {
  platform::HttpRequest request;
  request.url = attempt->release.url + ".sig";
  request.cachePolicy = platform::CachePolicy::ignoreLocalCache;
  request.timeoutSec = deps_.tunables.real(settings::T::networkTimeoutSec);
  request.maxBytes = kSignatureMaxBytes;
  std::weak_ptr<Installer*> weak = self_;
  platform::MainLoop& loop = deps_.loop;
  deps_.http.get(request, [weak, attempt, &loop](const platform::HttpResponse& response) {
    loop.dispatchMain([weak, attempt, response] {
      const auto self = weak.lock();
      if (!self || (*self)->current_ != attempt) return;
      Installer& installer = **self;
      if (!response.received || response.status != 200) {
        return installer.fail(
            attempt, "The update's signature could not be downloaded (" +
                         (response.received ? "HTTP " + std::to_string(response.status) : response.error) +
                         ").");
      }
      const auto signature = signatureBytes(response.body);
      if (!signature) return installer.fail(attempt, "The update's signature is not valid.");
      const platform::Digest& digest = installer.deps_.digest;
      const std::string key = installer.deps_.publicKey;
      const std::string path = attempt->path;
      installer.offMain([&digest, path, sig = *signature,
                         key] { return digest.verifyEd25519File(path, sig, key) ? "" : "bad"; },
                        [&installer, attempt](const std::string& result) {
                          if (installer.current_ != attempt) return;
                          if (!result.empty())
                            return installer.fail(attempt, "The update's signature is not valid.");
                          installer.verified_[attempt->release.version] = attempt->path;
                          installer.deps_.log("update " + attempt->release.version + ": download verified");
                          attempt->then(attempt->path);
                        });
    });
  });
}

void Installer::fail(const std::shared_ptr<Attempt>& attempt, const std::string& why) {
  (void)deps_.files.remove(attempt->path);
  verified_.erase(attempt->release.version);
  deps_.log("update " + attempt->release.version + " refused: " + why);
  busy_ = false;
  if (attempt->prefetched) std::exchange(attempt->prefetched, nullptr)(false);
  if (!attempt->visible) return;
  deps_.progress.close();
  tellFailure(kNotInstalled, why + " Nothing was changed.");
}

void Installer::tellFailure(const std::string& message, const std::string& why) {
  (void)deps_.alerts.runModal({message, why, {"OK"}});
}

void Installer::installVerified(const Release& release, const std::string& path) {
  const platform::InstallKind kind = deps_.target.kind();
  const bool deb = endsWith(path, ".deb");
  if ((kind == platform::InstallKind::selfContained && !isArchive(path)) ||
      (kind == platform::InstallKind::debianPackage && !deb) || kind == platform::InstallKind::other) {
    // The verified file cannot be applied to this copy: the user installs it.
    deps_.log("update " + release.version + ": left for the user at " + path);
    deps_.progress.close();
    busy_ = false;
    tellFailure("Install Tarry " + release.version + " by hand",
                "This copy of Tarry cannot replace itself with this download. The checked file, shown in its "
                "folder now:\n" +
                    path);
    deps_.target.showInFolder(path);
    return;
  }
  deps_.progress.show("Installing Tarry " + release.version, [] {});
  deps_.progress.setCancellable(false);
  platform::UpdateTarget& target = deps_.target;
  if (kind == platform::InstallKind::debianPackage) {
    deps_.progress.update("Waiting for the system installer…", -1);
    offMain([&target, path] { return target.installPackage(path); },
            [this, release, path](const std::string& error) {
              if (!error.empty()) {
                deps_.log("update " + release.version + ": package not installed: " + error);
                deps_.progress.close();
                busy_ = false;
                tellFailure(kNotInstalled,
                            error +
                                " Install the checked package with your package manager. It is shown in "
                                "its folder now:\n" +
                                path);
                deps_.target.showInFolder(path);
                return;
              }
              relaunch(release);
            });
    return;
  }
  deps_.progress.update("Installing Tarry " + release.version + "…", -1);
  const std::string version = release.version;
  offMain([&target, path, version] { return target.installArchive(path, version); },
          [this, release](const std::string& error) {
            if (!error.empty()) {
              deps_.log("update " + release.version + " not installed: " + error);
              deps_.progress.close();
              busy_ = false;
              tellFailure(kNotInstalled, error + " Nothing was changed.");
              return;
            }
            relaunch(release);
          });
}

void Installer::relaunch(const Release& release) {
  deps_.progress.update("Starting Tarry " + release.version + "…", -1);
  platform::UpdateTarget& target = deps_.target;
  offMain([&target] { return target.relaunch(); },
          [this, release](const std::string& error) {
            deps_.progress.close();
            busy_ = false;
            if (!error.empty()) {
              deps_.log("update " + release.version + ": the new copy did not start: " + error);
              tellFailure("Tarry " + release.version + " did not start",
                          error + " You still have Tarry " + deps_.runningVersion + ".");
              return;
            }
            deps_.log("update installed " + release.version + ", restarting");
            if (deps_.quit) deps_.quit();
          });
}

}  // namespace tarry::update
