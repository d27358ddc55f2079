#pragma once

#include "platform/desktop_entries.h"

#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarry::platform::os {

/// The locale names to try for localized keys, best first, for a POSIX locale name
/// ("de_DE.UTF-8@euro" → "de_DE@euro", "de_DE", "de@euro", "de"); empty for "C", "POSIX" and "".
[[nodiscard]] std::vector<std::string> localeVariants(std::string_view locale);
/// The locale that names messages: the first of LC_ALL, LC_MESSAGES and LANG that is set.
[[nodiscard]] std::string messagesLocale();
/// The desktop-file id of a file (XDG Desktop Entry specification): its path below the
/// `applications/` folder of one of `dataDirectories` (else below the nearest enclosing folder
/// named `applications`, else its file name) with '/' turned into '-' and ".desktop" removed.
[[nodiscard]] std::string desktopFileId(const std::string& path, const std::vector<std::string>& dataDirectories);
/// The application entry in a file's text, or nothing when it is not a valid one: the
/// [Desktop Entry] group must say Type=Application and give a Name and an Exec (or
/// DBusActivatable=true). `locales` as from `localeVariants`. `id` and `path` are left empty.
[[nodiscard]] std::optional<DesktopEntry> parseDesktopEntry(std::string_view text,
                                                            const std::vector<std::string>& locales);

/// Installed applications from the `applications/` folders of the XDG data directories, read
/// with the XDG Desktop Entry rules: for each desktop-file id the file in the earliest data
/// directory wins, even when it is Hidden (then the id counts as absent) or invalid.
///
/// The folders are scanned on first use and again when one of them has changed (its
/// modification time: files added, removed or renamed, which is how packages install), when the
/// data directories or the messages locale change.
class DesktopEntryReader final : public DesktopEntries {
 public:
  /// Searches `os::dataDirectories()`, read again at every scan.
  DesktopEntryReader() = default;
  /// Searches these data directories (each holding an `applications/` folder), in this order.
  explicit DesktopEntryReader(std::vector<std::string> dataDirectories)
      : fixedDirectories_(std::move(dataDirectories)) {}

  [[nodiscard]] std::optional<DesktopEntry> readFile(const std::string& path) override;
  [[nodiscard]] std::optional<DesktopEntry> findById(const std::string& id) override;
  [[nodiscard]] std::optional<DesktopEntry> findByStartupWMClass(const std::string& wmClass) override;
  [[nodiscard]] std::vector<DesktopEntry> installedApplications() override;

 private:
  [[nodiscard]] std::vector<std::string> directories() const;
  /// Scans again when anything it depends on changed. Called with `mutex_` held.
  void refresh();
  [[nodiscard]] bool stale(const std::vector<std::string>& directories, const std::string& locale) const;

  std::optional<std::vector<std::string>> fixedDirectories_;
  std::mutex mutex_;
  bool scanned_ = false;
  std::vector<std::string> scannedDirectories_;
  std::string scannedLocale_;
  /// Every folder looked at, with its modification time (nothing when it did not exist).
  std::map<std::string, std::optional<std::filesystem::file_time_type>> folderTimes_;
  /// Valid, not Hidden entries, in search order.
  std::vector<DesktopEntry> entries_;
};

}  // namespace tarry::platform::os
