#pragma once

#include "platform/file_system.h"

#include <map>
#include <mutex>
#include <set>

namespace tarry::platform::sim {

/// Files and directories held in memory.
class MemoryFileSystem final : public FileSystem {
 public:
  [[nodiscard]] std::string tempDirectory() const override { return "/tmp"; }
  [[nodiscard]] bool exists(const std::string& path) const override;
  bool createDirectories(const std::string& path) override;
  bool append(const std::string& path, std::string_view bytes) override;
  bool write(const std::string& path, std::string_view bytes) override;
  [[nodiscard]] std::optional<std::uint64_t> size(const std::string& path) const override;
  [[nodiscard]] std::optional<std::string> readTail(const std::string& path,
                                                    std::uint64_t maxBytes) const override;
  [[nodiscard]] std::optional<std::vector<std::string>> list(const std::string& path) const override;
  [[nodiscard]] std::string newUUID() override;
  [[nodiscard]] std::string stateDirectory() const override { return "/state/tarry"; }
  bool restrictToOwner(const std::string& path) override;
  bool remove(const std::string& path) override;
  /// The order of the last writes: each append or write stamps the file one second later.
  [[nodiscard]] std::optional<double> modified(const std::string& path) const override;

  /// Whole content of a file; empty when missing.
  [[nodiscard]] std::string content(const std::string& path) const;
  /// When set, every write fails (a full or read-only disk).
  bool failWrites = false;
  /// Paths made owner-only.
  [[nodiscard]] bool ownerOnly(const std::string& path) const;

 private:
  [[nodiscard]] bool parentExists(const std::string& path) const;

  mutable std::mutex mutex_;
  std::map<std::string, std::string> files_;
  std::set<std::string> dirs_{"/", "/tmp"};
  unsigned uuidCounter_ = 0;
  std::map<std::string, double> stamps_;
  double clock_ = 0;
  std::set<std::string> ownerOnly_;
};

}  // namespace tarry::platform::sim
