#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarry::platform {

/// The few file operations the logic needs. Every operation reports failure through its result;
/// none throws.
class FileSystem {
 public:
  FileSystem() = default;
  FileSystem(const FileSystem&) = delete;
  FileSystem& operator=(const FileSystem&) = delete;
  virtual ~FileSystem() = default;

  /// The system's temporary directory.
  [[nodiscard]] virtual std::string tempDirectory() const = 0;
  [[nodiscard]] virtual bool exists(const std::string& path) const = 0;
  /// Creates the directory and its parents; true when it exists afterwards.
  virtual bool createDirectories(const std::string& path) = 0;
  /// Appends bytes to the file, creating it when missing.
  virtual bool append(const std::string& path, std::string_view bytes) = 0;
  /// Replaces the whole content of the file.
  virtual bool write(const std::string& path, std::string_view bytes) = 0;
  /// Size of the file in bytes; nothing when it cannot be read.
  [[nodiscard]] virtual std::optional<std::uint64_t> size(const std::string& path) const = 0;
  /// The last `maxBytes` bytes of the file (all of it when smaller); nothing on failure.
  [[nodiscard]] virtual std::optional<std::string> readTail(const std::string& path,
                                                            std::uint64_t maxBytes) const = 0;
  /// Names of the entries of a directory; nothing when it cannot be listed.
  [[nodiscard]] virtual std::optional<std::vector<std::string>> list(
      const std::string& path) const = 0;
  /// A new random UUID in its text form (8-4-4-4-12 hex digits).
  [[nodiscard]] virtual std::string newUUID() = 0;

  /// This program's private state directory ($XDG_STATE_HOME/tarry, else ~/.local/state/tarry);
  /// it survives a reboot, unlike the temporary directory.
  [[nodiscard]] virtual std::string stateDirectory() const = 0;
  /// Makes a file or directory readable and writable by its owner only (0600, or 0700 for a
  /// directory); true on success.
  virtual bool restrictToOwner(const std::string& path) = 0;
  /// Removes a file (or an empty directory); true when it is gone afterwards.
  virtual bool remove(const std::string& path) = 0;
  /// Last modification in seconds since 1970; nothing when it cannot be read.
  [[nodiscard]] virtual std::optional<double> modified(const std::string& path) const = 0;
};

}  // namespace tarry::platform
