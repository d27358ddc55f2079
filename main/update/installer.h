#pragma once

#include "platform/alerts.h"
#include "platform/digest.h"
#include "platform/downloader.h"
#include "platform/file_system.h"
#include "platform/http.h"
#include "platform/main_loop.h"
#include "platform/progress_window.h"
#include "platform/update_target.h"
#include "settings/tunables.h"
#include "update/release.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

namespace tarry::update {

struct InstallerDeps {
  platform::MainLoop& loop;
  platform::Downloader& downloader;
  /// Fetches the detached signature at url + ".sig".
  platform::Http& http;
  const platform::Digest& digest;
  platform::FileSystem& files;
  platform::Alerts& alerts;
  platform::ProgressWindow& progress;
  platform::UpdateTarget& target;
  const settings::Tunables& tunables;
  std::function<void(std::string line)> log;
  /// The Ed25519 public key (32 bytes) that release files are signed with, fixed at build time.
  std::string publicKey;
  /// The running version, for the texts.
  std::string runningVersion;
  /// Ends this process once the new copy runs.
  std::function<void()> quit;
};

/// Downloads a release, verifies it (SHA-256 from the feed and an Ed25519 signature of the file
/// at url + ".sig" by the build's key) and installs it the way this copy was installed.
/// NOTE: nothing is installed from a file that failed a check; such a file is deleted. Main
/// thread only; downloads, digests and installs run off it.
class Installer final {
 public:
  explicit Installer(InstallerDeps deps) : deps_(std::move(deps)) {}
  Installer(const Installer&) = delete;
  Installer& operator=(const Installer&) = delete;

  /// "Install and Restart": downloads with the progress window (or uses the prefetched file),
  /// verifies, installs, relaunches. Failures are told in an alert.
  void install(const Release& release);
  /// Downloads and verifies in the background, silently, so that a later `install` starts at once.
  /// `done` runs once on the main thread with whether the file is verified, unless an install
  /// takes the prefetch over or replaces it first. A prefetch of another release still under way
  /// is dropped; during an install nothing is fetched and `done` gets false.
  void prefetch(const Release& release, std::function<void(bool ok)> done = {});
  /// False when this copy has no key to check updates with: nothing can be installed.
  [[nodiscard]] bool canVerify() const { return deps_.publicKey.size() == 32; }
  /// True while a download, check or install is under way.
  [[nodiscard]] bool busy() const { return busy_; }

  /// Where the download of `release` is kept.
  [[nodiscard]] std::string downloadPath(const Release& release) const;
  /// Text of a byte count: "850 KB", "12.3 MB".
  [[nodiscard]] static std::string sizeText(std::uint64_t bytes);

 private:
  struct Attempt;
  using Verified = std::function<void(const std::string& path)>;

  void fetchVerified(const Release& release, bool visible, Verified then,
                     std::function<void(bool ok)> prefetched = {});
  void verify(const std::shared_ptr<Attempt>& attempt);
  void checkSignature(const std::shared_ptr<Attempt>& attempt);
  void fail(const std::shared_ptr<Attempt>& attempt, const std::string& why);
  void installVerified(const Release& release, const std::string& path);
  void relaunch(const Release& release);
  void tellFailure(const std::string& message, const std::string& why);
  /// Runs `work` on the background pool and `then` with its result on the main thread, unless
  /// this object is gone by then.
  void offMain(std::function<std::string()> work, std::function<void(const std::string&)> then);

  InstallerDeps deps_;
  bool busy_ = false;
  std::shared_ptr<Attempt> current_;
  /// Files verified in this run, by version.
  std::map<std::string, std::string> verified_;
  std::shared_ptr<Installer*> self_ = std::make_shared<Installer*>(this);
};

}  // namespace tarry::update
