#include "platform/sim/memory_file_system.h"

#include <cstdio>

namespace tarry::platform::sim {
namespace {

std::string parentOf(const std::string& path) {
  const auto slash = path.find_last_of('/');
  if (slash == std::string::npos || slash == 0) return "/";
  return path.substr(0, slash);
}

}  // namespace

bool MemoryFileSystem::parentExists(const std::string& path) const { return dirs_.count(parentOf(path)) != 0; }

bool MemoryFileSystem::exists(const std::string& path) const {
  const std::lock_guard lock(mutex_);
  return files_.count(path) != 0 || dirs_.count(path) != 0;
}

bool MemoryFileSystem::createDirectories(const std::string& path) {
  const std::lock_guard lock(mutex_);
  if (failWrites) return dirs_.count(path) != 0;
  std::string current;
  std::size_t pos = 0;
  while (pos != std::string::npos) {
    pos = path.find('/', pos + 1);
    current = path.substr(0, pos);
    if (!current.empty()) {
      if (files_.count(current) != 0) return false;
      dirs_.insert(current);
    }
  }
  return true;
}

bool MemoryFileSystem::append(const std::string& path, std::string_view bytes) {
  const std::lock_guard lock(mutex_);
  if (failWrites || !parentExists(path) || dirs_.count(path) != 0) return false;
  files_[path].append(bytes);
  stamps_[path] = ++clock_;
  return true;
}

bool MemoryFileSystem::write(const std::string& path, std::string_view bytes) {
  const std::lock_guard lock(mutex_);
  if (failWrites || !parentExists(path) || dirs_.count(path) != 0) return false;
  files_[path] = std::string(bytes);
  stamps_[path] = ++clock_;
  return true;
}

std::optional<std::uint64_t> MemoryFileSystem::size(const std::string& path) const {
  const std::lock_guard lock(mutex_);
  const auto it = files_.find(path);
  if (it == files_.end()) return std::nullopt;
  return it->second.size();
}

std::optional<std::string> MemoryFileSystem::readTail(const std::string& path, std::uint64_t maxBytes) const {
  const std::lock_guard lock(mutex_);
  const auto it = files_.find(path);
  if (it == files_.end()) return std::nullopt;
  const auto& s = it->second;
  return s.size() <= maxBytes ? s : s.substr(s.size() - maxBytes);
}

std::optional<std::vector<std::string>> MemoryFileSystem::list(const std::string& path) const {
  const std::lock_guard lock(mutex_);
  if (dirs_.count(path) == 0) return std::nullopt;
  std::vector<std::string> names;
  const std::string prefix = path == "/" ? "/" : path + "/";
  auto collect = [&](const std::string& entry) {
    if (entry.size() > prefix.size() && entry.compare(0, prefix.size(), prefix) == 0 &&
        entry.find('/', prefix.size()) == std::string::npos) {
      names.push_back(entry.substr(prefix.size()));
    }
  };
  for (const auto& [name, content] : files_) collect(name);
  for (const auto& dir : dirs_) collect(dir);
  return names;
}

std::string MemoryFileSystem::newUUID() {
  const std::lock_guard lock(mutex_);
  char text[40];
  std::snprintf(text, sizeof text, "%08X-0000-4000-8000-%012X", uuidCounter_ + 1, (uuidCounter_ + 1) * 7919U);
  ++uuidCounter_;
  return text;
}

std::string MemoryFileSystem::content(const std::string& path) const {
  const std::lock_guard lock(mutex_);
  const auto it = files_.find(path);
  return it == files_.end() ? std::string() : it->second;
}

bool MemoryFileSystem::restrictToOwner(const std::string& path) {
  const std::lock_guard lock(mutex_);
  if (files_.count(path) == 0 && dirs_.count(path) == 0) return false;
  ownerOnly_.insert(path);
  return true;
}

bool MemoryFileSystem::ownerOnly(const std::string& path) const {
  const std::lock_guard lock(mutex_);
  return ownerOnly_.count(path) != 0;
}

bool MemoryFileSystem::remove(const std::string& path) {
  const std::lock_guard lock(mutex_);
  if (failWrites) return files_.count(path) == 0;
  files_.erase(path);
  stamps_.erase(path);
  return true;
}

std::optional<double> MemoryFileSystem::modified(const std::string& path) const {
  const std::lock_guard lock(mutex_);
  const auto it = stamps_.find(path);
  if (it == stamps_.end()) return std::nullopt;
  return it->second;
}

}  // namespace tarry::platform::sim
