#pragma once

#include "platform/update_target.h"

#include <optional>
#include <string>

namespace tarry::platform::os {

/// Installs verified updates on Linux.
///
/// A self-contained install is a folder the user owns holding versioned copies and a `current`
/// link: <base>/current -> tarry-1.4.2, the program at <base>/current/bin/tarry. An update is
/// unpacked into <base>/tarry-<version> and `current` is switched with one rename, so the program
/// is always either the old or the new copy. The new copy is started with the write end of a pipe
/// in TARRY_UPDATE_READY_FD; until it writes "ready" there the old copy stays, and `current` goes
/// back to it when the new one fails to start. The new copy also inherits the instance lock (see
/// `handOnLock`).
/// A copy installed from the Debian package (`dpkg-query` lists the running program among the files
/// of the package `tarry`) hands the verified package to `pkexec apt-get install`.
class LinuxUpdateTarget final : public UpdateTarget {
 public:
  /// `executable`: the running program's real path (empty: /proc/self/exe). `startTimeoutSec`:
  /// how long a new copy has to report that it started.
  explicit LinuxUpdateTarget(std::string executable = "", double startTimeoutSec = 20);

  [[nodiscard]] InstallKind kind() const override;
  std::string installArchive(const std::string& archive, const std::string& version) override;
  std::string relaunch() override;
  std::string installPackage(const std::string& package) override;
  /// Asks the file manager to show the file selected (org.freedesktop.FileManager1.ShowItems on
  /// the session bus); when none answers, opens its folder with xdg-open. Returns at once.
  void showInFolder(const std::string& path) override;

  /// "file://" and the absolute path with everything but unreserved characters and "/"
  /// percent-encoded.
  [[nodiscard]] static std::string fileURI(const std::string& path);

  /// The descriptor of the instance lock the new copy keeps (-1: none), so that no other copy can
  /// start while one replaces the other.
  void handOnLock(int descriptor) { lock_ = descriptor; }

  /// In a newly started copy: tells the copy that started it that this one runs. Harmless when
  /// this process was not started by an update.
  static void reportStarted();

 private:
  [[nodiscard]] std::string switchCurrent(const std::string& folderName);

  std::string executable_;
  double startTimeoutSec_;
  int lock_ = -1;
  /// Known at once for a self-contained install; otherwise found out when first asked.
  mutable std::optional<InstallKind> kind_;
  /// Self-contained installs: the folder holding `current`, and the folder names it pointed to
  /// before and after an update.
  std::string base_;
  std::string previous_;
  std::string installed_;
};

}  // namespace tarry::platform::os
