#include "update/installer.h"

#include "platform/sim/memory_file_system.h"
#include "platform/sim/sim_alerts.h"
#include "platform/sim/sim_http.h"
#include "platform/sim/sim_main_loop.h"

#include <gtest/gtest.h>

#include <functional>
#include <vector>

namespace tarry::update {
namespace {

const std::string kKey(32, 'k');
// Raw signature bytes may end in what looks like a line end; it is part of the signature.
const std::string kSignature = std::string(63, 's') + "\n";

/// Digests over the in-memory files: a file's "SHA-256" is its content's std::hash in hex, and a
/// signature is valid only for the file content `signedContent` under `kKey`.
class FakeDigest final : public platform::Digest {
 public:
  explicit FakeDigest(platform::sim::MemoryFileSystem& files) : files_(files) {}
  static std::string hashOf(std::string_view data) {
    char text[32];
    std::snprintf(text, sizeof text, "%016zx", std::hash<std::string_view>{}(data));
    return text;
  }
  std::string sha256Hex(std::string_view data) const override { return hashOf(data); }
  std::string sha256FileHex(const std::string& path) const override {
    return files_.exists(path) ? hashOf(files_.content(path)) : "";
  }
  bool verifyEd25519File(const std::string& path, std::string_view signature,
                         std::string_view key) const override {
    return files_.exists(path) && files_.content(path) == signedContent && signature == kSignature &&
           key == kKey;
  }
  std::string signedContent;

 private:
  platform::sim::MemoryFileSystem& files_;
};

/// Downloads that the test finishes: `finish` writes the content and reports.
class FakeDownloader final : public platform::Downloader {
 public:
  struct Pending final : platform::Download {
    void cancel() override { cancelled = true; }
    std::string url, path;
    std::uint64_t maxBytes = 0;
    Progress progress;
    Done done;
    bool cancelled = false;
  };
  std::shared_ptr<platform::Download> download(const std::string& url, const std::string& path,
                                               std::uint64_t maxBytes, double, Progress progress,
                                               Done done) override {
    auto d = std::make_shared<Pending>();
    d->url = url;
    d->path = path;
    d->maxBytes = maxBytes;
    d->progress = std::move(progress);
    d->done = std::move(done);
    started.push_back(d);
    return d;
  }
  std::vector<std::shared_ptr<Pending>> started;
};

class RecordingProgress final : public platform::ProgressWindow {
 public:
  void show(const std::string& title, std::function<void()> cancel) override {
    titles.push_back(title);
    onCancel = std::move(cancel);
    open = true;
  }
  void update(const std::string& text, double) override { texts.push_back(text); }
  void setCancellable(bool) override {}
  void close() override { open = false; }
  std::vector<std::string> titles, texts;
  std::function<void()> onCancel;
  bool open = false;
};

class FakeTarget final : public platform::UpdateTarget {
 public:
  platform::InstallKind kind() const override { return installKind; }
  std::string installArchive(const std::string& archive, const std::string& version) override {
    calls.push_back("archive " + archive + " " + version);
    return archiveError;
  }
  std::string relaunch() override {
    calls.push_back("relaunch");
    return relaunchError;
  }
  std::string installPackage(const std::string& package) override {
    calls.push_back("package " + package);
    return packageError;
  }
  void showInFolder(const std::string& path) override { calls.push_back("show " + path); }
  platform::InstallKind installKind = platform::InstallKind::selfContained;
  std::string archiveError, relaunchError, packageError;
  std::vector<std::string> calls;
};

class InstallerTest : public ::testing::Test {
 protected:
  InstallerTest() {
    digest.signedContent = kArchive;
    http.responder = [this](const platform::HttpRequest& request) {
      sigRequests.push_back(request.url);
      return platform::HttpResponse{true, sigStatus, signature, ""};
    };
  }

  /// Finishes the newest download with `content`, in two progress steps.
  void finishDownload(const std::string& content) {
    auto& d = *downloader.started.back();
    d.progress(content.size() / 2, content.size());
    d.progress(content.size(), content.size());
    files.write(d.path, content);
    d.done({true, "", false, false, content.size()});
    loop.runDue();
  }

  const std::string kArchive = std::string(2'000'000, 'a');
  const std::string kPath = "/state/tarry/updates/2.0/tarry-2.0.tar.gz";
  Release release{"2.0", "https://dl.example/tarry-2.0.tar.gz", FakeDigest::hashOf(kArchive), ""};

  platform::sim::SimMainLoop loop{0, 1'794'691'122.0};
  platform::sim::MemoryFileSystem files;
  FakeDigest digest{files};
  FakeDownloader downloader;
  platform::sim::SimHttp http;
  platform::sim::SimAlerts alerts;
  RecordingProgress progress;
  FakeTarget target;
  settings::Tunables tunables;
  std::vector<std::string> lines, sigRequests;
  std::string signature = kSignature;
  int sigStatus = 200;
  int quits = 0;
  Installer installer{{loop, downloader, http, digest, files, alerts, progress, target, tunables,
                       [this](std::string line) { lines.push_back(std::move(line)); }, kKey, "1.9",
                       [this] { ++quits; }}};
};

TEST_F(InstallerTest, DownloadsWithProgressVerifiesInstallsAndRestarts) {
  tunables.setNumber(settings::T::updateMaxDownloadMB, 50);
  installer.install(release);
  ASSERT_EQ(downloader.started.size(), 1U);
  EXPECT_EQ(downloader.started[0]->path, kPath);
  EXPECT_EQ(downloader.started[0]->maxBytes, 50'000'000U);
  EXPECT_EQ(progress.titles.front(), "Downloading Tarry 2.0");
  finishDownload(kArchive);
  EXPECT_NE(std::find(progress.texts.begin(), progress.texts.end(), "1.0 MB of 2.0 MB (50 %)"),
            progress.texts.end());
  EXPECT_EQ(sigRequests, std::vector<std::string>{"https://dl.example/tarry-2.0.tar.gz.sig"});
  EXPECT_EQ(target.calls, (std::vector<std::string>{"archive " + kPath + " 2.0", "relaunch"}));
  EXPECT_EQ(quits, 1);
  EXPECT_TRUE(alerts.shown.empty());
  EXPECT_FALSE(progress.open);
  EXPECT_EQ(lines.back(), "update installed 2.0, restarting");
}

TEST_F(InstallerTest, RefusesInsecureDamagedUnsignedAndOversizeDownloadsChangingNothing) {
  const auto refusedWith = [this](const std::string& why) {
    ASSERT_FALSE(alerts.shown.empty());
    EXPECT_EQ(alerts.shown.back().message, "The update was not installed");
    EXPECT_EQ(alerts.shown.back().informativeText, why + " Nothing was changed.");
    EXPECT_FALSE(files.exists(kPath));
    EXPECT_TRUE(target.calls.empty());
    EXPECT_FALSE(installer.busy());
  };
  installer.install({"2.0", "http://dl.example/tarry-2.0.tar.gz", release.sha256, ""});
  EXPECT_TRUE(downloader.started.empty());
  refusedWith("The download address is not secure (it must use https).");

  installer.install(release);
  finishDownload(kArchive + "tampered");
  refusedWith("The downloaded file is damaged: its SHA-256 checksum does not match the release.");
  EXPECT_TRUE(sigRequests.empty());

  signature = std::string(64, 'x');
  installer.install(release);
  finishDownload(kArchive);
  refusedWith("The update's signature is not valid.");

  signature = kSignature;
  sigStatus = 404;
  installer.install(release);
  finishDownload(kArchive);
  refusedWith("The update's signature could not be downloaded (HTTP 404).");

  tunables.setNumber(settings::T::updateMaxDownloadMB, 10);
  installer.install(release);
  downloader.started.back()->done({false, "", true, false, 10'000'001});
  loop.runDue();
  refusedWith("The download is larger than the 10 MB allowed.");
  EXPECT_EQ(lines.back(), "update 2.0 refused: The download is larger than the 10 MB allowed.");
}

TEST_F(InstallerTest, CancelStopsTheDownloadQuietly) {
  installer.install(release);
  progress.onCancel();
  auto& d = *downloader.started.back();
  ASSERT_TRUE(d.cancelled);
  files.write(d.path, "part");
  d.done({false, "Operation canceled", false, true, 4});
  loop.runDue();
  EXPECT_FALSE(files.exists(kPath));
  EXPECT_TRUE(alerts.shown.empty());
  EXPECT_FALSE(progress.open);
  EXPECT_FALSE(installer.busy());
  EXPECT_TRUE(target.calls.empty());
}

TEST_F(InstallerTest, APrefetchReportsHowItEndedAndItsFileIsUsedByTheOffer) {
  std::vector<bool> results;
  const auto record = [&results](bool ok) { results.push_back(ok); };
  installer.prefetch(release, record);
  finishDownload(kArchive + "tampered");
  EXPECT_EQ(results, std::vector<bool>{false});
  EXPECT_FALSE(files.exists(kPath));
  EXPECT_TRUE(alerts.shown.empty());  // silent

  // A prefetch of an older release still under way gives way to the newer one.
  installer.prefetch({"1.95", "https://dl.example/tarry-1.95.tar.gz", "00", ""}, record);
  installer.prefetch(release, record);
  ASSERT_EQ(downloader.started.size(), 3U);
  EXPECT_TRUE(downloader.started[1]->cancelled);
  EXPECT_TRUE(progress.titles.empty());
  finishDownload(kArchive);
  EXPECT_EQ(results, (std::vector<bool>{false, true}));
  EXPECT_TRUE(target.calls.empty());

  installer.install(release);
  loop.runDue();
  EXPECT_EQ(downloader.started.size(), 3U);  // not downloaded again
  EXPECT_EQ(target.calls, (std::vector<std::string>{"archive " + kPath + " 2.0", "relaunch"}));
}

TEST_F(InstallerTest, AnInstallTakesOverAPrefetchUnderWayAndNoneStartsDuringIt) {
  std::vector<bool> results;
  installer.prefetch(release, [&results](bool ok) { results.push_back(ok); });
  installer.install(release);
  EXPECT_EQ(progress.titles, std::vector<std::string>{"Downloading Tarry 2.0"});
  installer.prefetch(release, [&results](bool ok) { results.push_back(ok); });
  EXPECT_EQ(results, std::vector<bool>{false});
  finishDownload(kArchive);
  EXPECT_EQ(downloader.started.size(), 1U);
  EXPECT_EQ(target.calls, (std::vector<std::string>{"archive " + kPath + " 2.0", "relaunch"}));
  EXPECT_EQ(results, std::vector<bool>{false});  // the install's end is not the prefetch's
}

TEST_F(InstallerTest, PackagesGoToTheSystemInstallerOrTheFolderIsShown) {
  target.installKind = platform::InstallKind::debianPackage;
  release.url = "https://dl.example/tarry_2.0_amd64.deb";
  const std::string deb = "/state/tarry/updates/2.0/tarry_2.0_amd64.deb";
  target.packageError = "Authentication was dismissed.";
  installer.install(release);
  finishDownload(kArchive);
  EXPECT_EQ(target.calls, (std::vector<std::string>{"package " + deb, "show " + deb}));
  ASSERT_EQ(alerts.shown.size(), 1U);
  EXPECT_EQ(alerts.shown[0].informativeText,
            "Authentication was dismissed. Install the checked package with your package manager. It is "
            "shown in its folder now:\n" +
                deb);
  EXPECT_TRUE(files.exists(deb));  // verified, kept for the user

  // A new copy that does not come up leaves the user on the old one, told so.
  target.packageError.clear();
  target.relaunchError = "It stopped at once.";
  target.calls.clear();
  installer.install(release);
  loop.runDue();
  EXPECT_EQ(target.calls, (std::vector<std::string>{"package " + deb, "relaunch"}));
  EXPECT_EQ(alerts.shown.back().message, "Tarry 2.0 did not start");
  EXPECT_EQ(alerts.shown.back().informativeText, "It stopped at once. You still have Tarry 1.9.");
  EXPECT_EQ(quits, 0);

  // A package offered to a self-contained copy is not applied: the user is told where it is.
  target.installKind = platform::InstallKind::selfContained;
  target.calls.clear();
  installer.install(release);
  loop.runDue();
  EXPECT_EQ(target.calls, (std::vector<std::string>{"show " + deb}));
  EXPECT_EQ(alerts.shown.back().message, "Install Tarry 2.0 by hand");
  EXPECT_EQ(alerts.shown.back().informativeText,
            "This copy of Tarry cannot replace itself with this download. The checked file, shown in its "
            "folder now:\n" +
                deb);
  EXPECT_TRUE(files.exists(deb));
}

}  // namespace
}  // namespace tarry::update
