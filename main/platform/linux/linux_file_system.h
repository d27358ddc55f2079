#pragma once

#include "platform/file_system.h"

namespace tarry::platform::os {

/// The local file system through std::filesystem and POSIX calls. No operation throws.
class LinuxFileSystem final : public FileSystem {
 public:
  [[nodiscard]] std::string tempDirectory() const override;
  [[nodiscard]] bool exists(const std::string& path) const override;
  bool createDirectories(const std::string& path) override;
  bool append(const std::string& path, std::string_view bytes) override;
  bool write(const std::string& path, std::string_view bytes) override;
  [[nodiscard]] std::optional<std::uint64_t> size(const std::string& path) const override;
  [[nodiscard]] std::optional<std::string> readTail(const std::string& path,
                                                    std::uint64_t maxBytes) const override;
  [[nodiscard]] std::optional<std::vector<std::string>> list(const std::string& path) const override;
  [[nodiscard]] std::string newUUID() override;
  [[nodiscard]] std::string stateDirectory() const override;
  bool restrictToOwner(const std::string& path) override;
  bool remove(const std::string& path) override;
  [[nodiscard]] std::optional<double> modified(const std::string& path) const override;
};

}  // namespace tarry::platform::os
