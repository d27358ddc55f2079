#pragma once

#include <string>

namespace tarry::platform {

/// How this copy of the program was installed, which decides how an update is installed.
enum class InstallKind {
  /// A release archive unpacked into a folder the user owns (versioned folders and a `current`
  /// link): updated in place.
  selfContained,
  /// A Debian package: the verified package goes to the system's privileged installer.
  debianPackage,
  /// Anything else (a build tree, a read-only folder): the user installs the file by hand.
  other,
};

/// The system side of installing a verified update.
class UpdateTarget {
 public:
  UpdateTarget() = default;
  UpdateTarget(const UpdateTarget&) = delete;
  UpdateTarget& operator=(const UpdateTarget&) = delete;
  virtual ~UpdateTarget() = default;

  [[nodiscard]] virtual InstallKind kind() const = 0;
  /// Self-contained installs: unpacks `archive` beside the running copy and switches to it
  /// atomically; the running copy stays in place. Empty on success, else why it failed (and
  /// nothing changed). Slow: call it off the main thread.
  virtual std::string installArchive(const std::string& archive, const std::string& version) = 0;
  /// Starts the newly installed copy and waits until it reports that it started; when it does
  /// not, switches back to the running copy and says why. Empty on success (this process should
  /// then quit). Slow: call it off the main thread.
  virtual std::string relaunch() = 0;
  /// Debian packages: hands `package` to the privileged installer (pkexec) and waits for it.
  /// Empty on success, else why not.
  virtual std::string installPackage(const std::string& package) = 0;
  /// Shows the folder holding `path` in the file manager.
  virtual void showInFolder(const std::string& path) = 0;
};

}  // namespace tarry::platform
